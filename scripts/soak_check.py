#!/usr/bin/python3
"""The checks at the end of a soak run (scripts/soak.sh), over what it left in --out:

- the camera ran its whole time, ended with status 0, never fell behind its ring buffer
  (frames skipped there are footage lost without a gap report), left its spool empty, and
  received every trigger the service published (accepted ones it never published, because
  it stopped while the broker was down, are counted apart: its queue is in memory);
- every recording verifies (vexo-media verify) and the listing reads (vexo-media ls);
- the footage has no hole but the gaps the spool reported: the frame time stamps of every
  media file (the kit clock's epoch milliseconds) run from the camera's start to its end with
  no step over HOLE_MS that a reported gap does not cover;
- RSS and open descriptors stay flat between the plan's baseline and final windows
  (soak_plan.py): RSS means within RSS_TOLERANCE_LONG on runs of 3 camera hours and more,
  and on shorter runs the final mean at most RSS_GROWTH_SHORT over the baseline; the lowest
  descriptor counts equal (requests in flight add descriptors for a moment; a leaked one
  raises the floor). The service is judged on its last instance, from its own warm-up.

Prints each measure and result, writes them to summary.txt; exit status 1 when a check
failed.
"""
import argparse
import bisect
import calendar
import csv
import glob
import os
import re
import statistics
import struct
import sys
import time

LONG_RUN_S = 3 * 3600
# A run of a day: the last hour's mean RSS within 5 % of the first hour's (after warm-up).
RSS_TOLERANCE_LONG = 0.05
# A short run judges growth only, and more loosely: its windows are a minute each, six
# minutes apart, and a burst of replays after an outage can still grow an allocator arena.
# Three 10-minute runs grew 2 to 4 %; 10 % of the camera's ~55 MB is what a leak of about
# 140 kB per media file uploaded (every 10 camera s) would add between the windows.
RSS_GROWTH_SHORT = 0.10
HOLE_MS = 2000
# Gap times are whole seconds and a dropped file's span is its own frames': this much slack
# on each side.
GAP_SLACK_S = 2
ENTRY = struct.Struct("<IIQQ")


class Report:
    def __init__(self):
        self.lines = []
        self.failures = []

    def say(self, text):
        self.lines.append(text)
        print(text, flush=True)

    def check(self, ok, text):
        self.say(("ok    " if ok else "FAIL  ") + text)
        if not ok:
            self.failures.append(text)


def read_windows(path):
    windows = {}
    with open(path) as f:
        for line in f:
            parts = line.split()
            if parts and parts[0] == "window":
                windows[parts[1]] = (int(parts[2]), int(parts[3]))
    return windows


def read_samples(path):
    with open(path) as f:
        return [{k: int(v) for k, v in row.items()} for row in csv.DictReader(f)]


def camsim_summary(path):
    text = open(path, errors="replace").read()

    def number(pattern, default=None):
        m = re.search(pattern, text)
        return float(m.group(1)) if m else default

    return {
        "ran_s": number(r"ran ([0-9.]+) s of camera time"),
        "real_s": number(r"of camera time in ([0-9.]+) s real time"),
        "caught_up": number(r"reader: caught up ([0-9]+) times"),
        "skipped": number(r"caught up [0-9]+ times, ([0-9]+) frames skipped"),
        "triggers": number(r"([0-9]+) remote triggers received"),
        "uploads": number(r"uploads: ([0-9]+) files"),
        "spool_items": number(r"\nspool ([0-9]+) items"),
        "spool_sent": number(r"([0-9]+) sent, [0-9]+ dropped"),
        "spool_dropped": number(r"([0-9]+) dropped"),
    }


def service_triggers(out):
    """Trigger commands the service's logs say it published, and those of them it had to
    keep because the connection was gone (each is published again, and logged again)."""
    published = kept = 0
    for path in glob.glob(os.path.join(out, "cloud-*.log")):
        for line in open(path, errors="replace"):
            if '"protocol":307' in line:
                published += "mqtt: publishing to" in line
                kept += "mqtt: not connected;" in line
    return published, kept


def read_gaps(path):
    """The gaps vexo-media ls lists (UTC times), as (from_s, to_s), merged where they touch."""
    gaps = []
    pattern = re.compile(r"gap +(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d) - (\d{4}-\d\d-\d\d \d\d:\d\d:\d\d)")
    for line in open(path, errors="replace"):
        m = pattern.search(line)
        if m:
            a, b = (calendar.timegm(time.strptime(t, "%Y-%m-%d %H:%M:%S")) for t in m.groups())
            gaps.append((a - GAP_SLACK_S, b + GAP_SLACK_S))
    gaps.sort()
    merged = []
    for a, b in gaps:
        if merged and a <= merged[-1][1]:
            merged[-1] = (merged[-1][0], max(merged[-1][1], b))
        else:
            merged.append((a, b))
    return merged


def file_spans(cloud_dir):
    """Per media file: (first ms, last ms, [(a_ms, b_ms) steps over HOLE_MS inside it])."""
    spans = []
    for path in glob.glob(os.path.join(cloud_dir, "*", "*", "*.media")):
        with open(path, "rb") as f:
            data = f.read()
        stamps = []
        offset = 0
        while offset + ENTRY.size <= len(data):
            _, length, stamp, _ = ENTRY.unpack_from(data, offset)
            stamps.append(stamp)
            offset += ENTRY.size + length
        if not stamps:
            continue
        stamps.sort()
        holes = [(a, b) for a, b in zip(stamps, stamps[1:]) if b - a > HOLE_MS]
        spans.append((stamps[0], stamps[-1], holes))
    spans.sort()
    return spans


def holes_in(spans, begin_ms, end_ms):
    """Stretches of [begin_ms, end_ms] with no frame for more than HOLE_MS."""
    holes = []
    reach = begin_ms
    for first, last, inner in spans:
        if first - reach > HOLE_MS:
            holes.append((reach, first))
        holes.extend(inner)
        reach = max(reach, last)
    if end_ms - reach > HOLE_MS:
        holes.append((reach, end_ms))
    return holes


def covered(hole, gaps):
    a, b = hole[0] / 1000, hole[1] / 1000
    i = bisect.bisect_right(gaps, (a, float("inf"))) - 1
    return i >= 0 and gaps[i][0] <= a and gaps[i][1] >= b


def mean_floor(rows, key, window):
    # A sample of 0 is a read of /proc that found the process between states: none.
    values = [r[key] for r in rows if window[0] <= r["camera_s"] < window[1] and r[key] > 0]
    if not values:
        return None, None, 0
    return statistics.mean(values), min(values), len(values)


def judge(report, name, rows, base, final, long_run):
    """Flatness of one process between two windows of its samples."""
    rss0, _, n0 = mean_floor(rows, name + "_rss_kb", base)
    rss1, _, n1 = mean_floor(rows, name + "_rss_kb", final)
    _, fd0, _ = mean_floor(rows, name + "_fds", base)
    _, fd1, _ = mean_floor(rows, name + "_fds", final)
    if n0 == 0 or n1 == 0:
        report.check(False, "%s: no samples in the baseline %s or the final window %s" % (name, base, final))
        return
    change = (rss1 - rss0) / rss0
    where = "camera s %d-%d vs %d-%d, %d and %d samples" % (base + final + (n0, n1))
    if long_run:
        report.check(
            abs(change) <= RSS_TOLERANCE_LONG,
            "%s RSS flat: mean %.1f MB -> %.1f MB (%+.1f %%, bound %.0f %%; %s)"
            % (name, rss0 / 1024, rss1 / 1024, change * 100, RSS_TOLERANCE_LONG * 100, where),
        )
    else:
        report.check(
            change <= RSS_GROWTH_SHORT,
            "%s RSS: mean %.1f MB -> %.1f MB (%+.1f %%, growth bound %.0f %%; %s)"
            % (name, rss0 / 1024, rss1 / 1024, change * 100, RSS_GROWTH_SHORT * 100, where),
        )
    report.check(fd0 == fd1, "%s open descriptors: lowest %g -> %g (%s)" % (name, fd0, fd1, where))


def main():
    p = argparse.ArgumentParser()
    for name in ("--out",):
        p.add_argument(name, required=True)
    for name in ("--start", "--total", "--speed", "--real", "--camsim-status", "--ls-status",
                 "--verify-status", "--triggers-sent"):
        p.add_argument(name, type=int, required=True)
    a = p.parse_args()
    out = a.out
    report = Report()
    windows = read_windows(os.path.join(out, "plan.txt"))
    long_run = a.total >= LONG_RUN_S

    cam = camsim_summary(os.path.join(out, "camsim.out"))
    ran_s = cam["ran_s"] or 0
    report.say("ran %.0f camera s in %d s real time: speed %.1f reached (asked %d)"
               % (ran_s, a.real, ran_s / max(a.real, 1), a.speed))
    report.check(a.camsim_status == 0, "vexo-camsim exit status %d" % a.camsim_status)
    report.check(ran_s >= a.total - 1, "the camera ran %.1f of %d camera s" % (ran_s, a.total))
    report.check(cam["skipped"] == 0,
                 "the module kept up with the camera: caught up %s times, %s frames skipped"
                 " (frames skipped are footage lost; lower --speed if the machine is busy)"
                 % (cam["caught_up"], cam["skipped"]))
    report.check(cam["spool_items"] == 0,
                 "spool empty at the end: %s items left; %s sent, %s dropped over the run"
                 % (cam["spool_items"], cam["spool_sent"], cam["spool_dropped"]))
    published, kept = service_triggers(out)
    # QoS 1 is at least once: a command in flight when the broker stops comes again after
    # its restart, so the camera may count more than were published, never fewer.
    report.check((cam["triggers"] or 0) >= published - kept,
                 "triggers: %d accepted by the service, %d published to the broker, %s received "
                 "by the camera" % (a.triggers_sent, published - kept, cam["triggers"]))
    if published - kept < a.triggers_sent:
        report.say("WARN  %d accepted triggers were never published: still in the service's "
                   "queue for the broker when it stopped (that queue is in memory)"
                   % (a.triggers_sent - (published - kept)))

    verify = open(os.path.join(out, "verify.txt"), errors="replace").read()
    recordings = len(re.findall(r"^\S+ \d+: .*: ok$", verify, re.M))
    faulty = len(re.findall(r"^\S+ \d+: .* faults$", verify, re.M))
    report.check(a.verify_status == 0 and recordings > 0 and faulty == 0,
                 "vexo-media verify: %d recordings ok, %d with faults (status %d)"
                 % (recordings, faulty, a.verify_status))
    report.check(a.ls_status == 0, "vexo-media ls: status %d" % a.ls_status)

    gaps = read_gaps(os.path.join(out, "ls.txt"))
    spans = file_spans(os.path.join(out, "cloud"))
    if spans:
        first_ms, last_ms = spans[0][0], max(s[1] for s in spans)
        # The camera's time runs from its module's first configuration (a few real seconds
        # after the clock's start at most) to ran_s after that; the last file may still be
        # short of the end by the part of a slice that uninit cut.
        head_s = first_ms / 1000 - a.start
        report.check(head_s <= max(30, 3 * a.speed),
                     "footage starts %.1f camera s after the clock's start" % head_s)
        end_ms = int((a.start + ran_s) * 1000)
        tail_s = (end_ms - last_ms) / 1000
        report.check(tail_s <= 12, "footage ends %.1f camera s before the camera's end" % tail_s)
        holes = holes_in(spans, first_ms, min(last_ms, end_ms))
        unreported = [h for h in holes if not covered(h, gaps)]
        lost_s = sum(b - a_ for a_, b in holes) / 1000
        report.say("footage: %d media files, %.2f camera h from the first frame to the last, "
                   "%d holes (%.0f s) over %d ms, %d gaps reported"
                   % (len(spans), (last_ms - first_ms) / 3.6e6, len(holes), lost_s, HOLE_MS, len(gaps)))
        report.check(not unreported,
                     "no hole but the reported gaps%s" % "".join(
                         "; hole %s + %.1f s not reported" % (
                             time.strftime("%Y-%m-%d %H:%M:%S", time.gmtime(h[0] / 1000)),
                             (h[1] - h[0]) / 1000) for h in unreported[:10]))
    else:
        report.check(False, "no media files in the cloud")

    rows = read_samples(os.path.join(out, "samples.csv"))
    base, final = windows["base"], windows["final"]
    warmup = windows["warmup"][1]
    report.say("flatness: %s run; baseline camera s %d-%d (after %d s of warm-up), final %d-%d"
               % ("long" if long_run else "short", base[0], base[1], warmup, final[0], final[1]))
    judge(report, "camsim", rows, base, final, long_run)
    last = max(r["cloud_instance"] for r in rows)
    served = [r for r in rows if r["cloud_instance"] == last and r["cloud_up"]]
    own_base = windows["service-base"]
    if served:
        started = served[0]["camera_s"]
        report.say("vexo-cloud judged on its instance %d, up from camera s %d" % (last, started))
        if started <= own_base[0]:
            judge(report, "cloud", served, own_base, final, long_run)
        else:
            report.check(False, "vexo-cloud's last instance started after its baseline began")
    else:
        report.check(False, "no samples of vexo-cloud")

    report.say("result: %s" % ("passed" if not report.failures else
                               "FAILED: %d checks" % len(report.failures)))
    with open(os.path.join(out, "summary.txt"), "w") as f:
        f.write("\n".join(report.lines) + "\n")
    return 1 if report.failures else 0


if __name__ == "__main__":
    sys.exit(main())
