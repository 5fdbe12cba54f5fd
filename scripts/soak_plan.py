#!/usr/bin/python3
"""The seeded schedule of a soak run (scripts/soak.sh): when the cloud and the broker go down
and come back, and when the cloud sends the camera a trigger, in camera seconds from the start.

    soak_plan.py TOTAL_S SEED        prints the windows, then one event a line, by time:

    window warmup 0 W          start-up and one of each event, left out of every measure
    window base W B            the baseline: quiet, measured
    window final F TOTAL       the end: quiet, measured
    window service-base S T    the service's last instance's own baseline: quiet, measured
    AT cloud-down kill|term    the service is killed (SIGKILL) or stopped (SIGTERM)
    AT cloud-up                and started again on the same port and data
    AT broker-down / broker-up the broker stopped (SIGTERM) and started again
    AT trigger record:DUR | pic | pic_v:DUR

Runs of 3 camera hours and more: 10 minutes of warm-up, then an hour of baseline, and the
last hour as the final window. Shorter runs: a quarter of the run of warm-up, then a tenth
each. The warm-up has one event of each kind at fixed points, so that what a path allocates
the first time it runs (the snapshot encoder, the spool, reconnections) is in place before
the baseline; the random events fall between the baseline and the final window. The service restarts early enough that its last
instance has a warm-up and a baseline of its own before the final window: its flatness is
judged on that instance.
"""
import random
import sys

LONG_RUN_S = 3 * 3600


def windows(total):
    if total >= LONG_RUN_S:
        warmup, length = 600, 3600
    else:
        warmup, length = total / 4, total / 10
    return warmup, warmup + length, total - length


# (fraction of the warm-up, event, argument)
WARMUP_EVENTS = [
    (0.15, "trigger", "record:10"),
    (0.25, "cloud-down", "kill"),
    (0.45, "cloud-up", ""),
    (0.50, "trigger", "pic"),
    (0.55, "broker-down", ""),
    (0.70, "broker-up", ""),
    (0.75, "trigger", "pic_v:10"),
]


def place(rng, count, begin, end, min_len, max_len):
    """count non-overlapping (start, length) intervals inside [begin, end)."""
    length_cap = (end - begin) / (2 * count)
    spans = []
    slot = (end - begin) / count
    for i in range(count):
        length = rng.uniform(min(min_len, length_cap), min(max_len, length_cap))
        start = begin + i * slot + rng.uniform(0, slot - length)
        spans.append((start, length))
    return spans


def plan(total, seed):
    rng = random.Random(seed)
    warmup, base_end, final_begin = windows(total)
    hours = total / 3600
    events = [(warmup * at, kind, arg) for at, kind, arg in WARMUP_EVENTS]
    # The service's last start leaves room for its own warm-up and baseline before the final
    # window, with a twentieth of the run to spare for a late start on a busy machine.
    restarts_end = final_begin - (base_end - warmup) - warmup - total / 20
    # The service: up to twenty camera minutes down about every two and a half hours, long
    # enough for the spool to fill past its bound.
    for start, length in place(rng, max(2, round(hours * 0.4)), base_end, restarts_end, 20, 1200):
        events.append((start, "cloud-down", rng.choice(["kill", "term"])))
        events.append((start + length, "cloud-up", ""))
    # The service's last instance is measured from its own warm-up on: no other event
    # there (a trigger's recording may last a minute).
    last_up = max(at for at, kind, _ in events if kind == "cloud-up")
    service_base = (last_up + warmup, last_up + base_end)

    def quiet(begin, end):
        return end <= service_base[0] - 60 or begin >= service_base[1]

    # The broker: up to five minutes down about every three hours, anywhere between.
    for start, length in place(rng, max(2, round(hours / 3)), base_end, final_begin, 10, 300):
        if quiet(start, start + length):
            events.append((start, "broker-down", ""))
            events.append((start + length, "broker-up", ""))
    # Triggers: about three an hour, at least six.
    for _ in range(max(6, round(hours * 3))):
        at = rng.uniform(base_end, final_begin)
        kind = rng.choice(["record", "pic", "pic_v"])
        arg = kind if kind == "pic" else "%s:%d" % (kind, rng.randint(5, 60))
        if quiet(at, at):
            events.append((at, "trigger", arg))
    events.sort(key=lambda e: e[0])
    lines = [
        "window warmup 0 %d" % warmup,
        "window base %d %d" % (warmup, base_end),
        "window final %d %d" % (final_begin, total),
        "window service-base %d %d" % service_base,
    ]
    lines += ["%d %s %s" % (at, kind, arg) for at, kind, arg in events]
    return lines


def main(argv):
    if len(argv) != 3 or not argv[1].isdigit() or not argv[2].isdigit() or int(argv[1]) < 60:
        sys.stderr.write("usage: soak_plan.py TOTAL_CAMERA_SECONDS(>=60) SEED\n")
        return 2
    for line in plan(int(argv[1]), int(argv[2])):
        print(line.rstrip())
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
