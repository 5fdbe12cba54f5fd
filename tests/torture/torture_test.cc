// Fault sweeps over whole-module scenarios. A scenario is first run with no fault to count the
// fallible kit calls it makes; then, for every N, it is run again from a fresh kit with call N
// failing. After each run the module must have returned, stopped its thread within a bound
// after uninit, and left no allocation, held mutex, open ring reader, unreleased store read
// or kit misuse behind; and once the failures stop, an event must record again: its uploads
// must decrypt with the key the recording announced and match the frames the kit produced.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "kit_fixture.h"
#include "media_file.h"

namespace {

using Bytes = std::vector<uint8_t>;

constexpr char kStartApi[] = "vexo.device.ipc.media.storage.notify.upload.start";
constexpr char kStopApi[] = "vexo.device.ipc.media.storage.notify.upload.stop";
constexpr uint32_t kEventSecs = 6;
constexpr uint32_t kSlice = 2;
constexpr uint32_t kWaitMs = 3000;          // real-time bound of one wait in a faulted run
constexpr uint32_t kRecoveryWaitMs = 20000; // and in the recovery, which must get there
constexpr uint32_t kThreadExitMs = 5000;    // the worker must be gone this long after uninit
constexpr size_t kMaxReported = 25;         // problems listed per shard; the rest are counted
const std::string kCloudKey = "fedcba9876543210";

/// 5 fps, a key frame every second, tiny frames: few calls per recorded second.
const tk::StreamConfig kSmallStream = {5, 5, 64, 16, true, 200, 16, 10};

/// Polls pred until it holds or real_ms of real time have passed; true when it held.
bool wait_until(const std::function<bool()> &pred, uint32_t real_ms = kWaitMs) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(real_ms);
    while (!pred()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return pred();
        }
        std::this_thread::yield();
    }
    return true;
}

int32_t init_module() {
    vexo_ipc_media_info_t media = tk::sample_media_info();
    // The frame rate the module is told must be the stream's: it steps back pre-record seconds
    // times this many frames. Told 25 fps over a 5 fps stream, the 2 s pre-record stepped back
    // to the ring's oldest frame, past the lag limit; each retry then cost a daily event, and
    // retries made while the test held the clock still used up all 20 without a frame.
    media.video_fps[0] = kSmallStream.fps;
    vexo_ipc_cloud_storage_hooks_t hooks;
    std::memset(&hooks, 0, sizeof(hooks));
    return vexo_ipc_cloud_storage_init(&media, &hooks);
}

/// Init, then waits (bounded) until the worker applied a configuration (its sequence-log entry
/// 74) or is gone. A failed call may keep either from happening; the checks come after.
void init_and_wait_config(uint32_t real_ms = kWaitMs) {
    const size_t applied = tk::seq_entries(74).size();
    if (init_module() != 0) {
        return;
    }
    wait_until(
        [applied] {
            return tk::seq_entries(74).size() > applied || tk::running_thread_count() == 0;
        },
        real_ms);
}

/// One motion event, waited on (bounded) until `stops` stop notifications were sent; returns
/// what event_start answered.
int32_t motion_event(size_t stops, uint32_t real_ms = kWaitMs) {
    tk::freeze_clock(true); // the idle worker must not move time on during the call
    const int32_t rc = vexo_ipc_cloud_storage_event_start();
    tk::freeze_clock(false);
    if (rc == 0) {
        wait_until([stops] { return tk::posts_of(kStopApi).size() >= stops; }, real_ms);
    }
    return rc;
}

void script_cloud() {
    tk::set_default_restriction(0, kEventSecs, kSlice);
    tk::set_default_storage_config(0, tk::make_storage_config("event", kEventSecs, kSlice, 0, 20));
    tk::start_stream(kSmallStream);
    tk::advance(4000); // a pre-record's worth of frames in the ring
}

void scenario_event_with_key_update() {
    script_cloud();
    tk::queue_post_answer(kStartApi, 0,
                          "{\"needUpdate\":true,\"encryptKey\":\"" + kCloudKey + "\"}");
    init_and_wait_config();
    motion_event(1);
}

void script_mode(const char *mode) {
    tk::set_default_restriction(0, kEventSecs, kSlice);
    tk::set_default_storage_config(0, tk::make_storage_config(mode, kEventSecs, kSlice, 0, 20));
}

/// Waits (bounded) until `n` files were uploaded since the run began.
void wait_uploads(size_t n) {
    wait_until([n] { return tk::uploads().size() >= n; });
}

/// All-time recording from 08:29:40 on: it crosses a file boundary and, at 08:30, the
/// half-hour boundary where the recording groups its files.
void scenario_alltime_boundaries() {
    tk::set_time(1705305600 + 29 * 60 + 40);
    script_mode("alltime");
    tk::start_stream(kSmallStream);
    init_and_wait_config();
    wait_uploads(4);
}

/// Remote triggers while idle in event mode: a recording, a picture, a picture with video.
void scenario_remote_triggers() {
    script_cloud();
    init_and_wait_config();
    auto trigger = [](const char *action, size_t stops) {
        tk::deliver_mqtt(307, std::string(R"({"data":{"action":")") + action +
                                  R"(","duration":4,"ext":{"user":"t"}}})");
        if (stops != 0) {
            wait_until([stops] { return tk::posts_of(kStopApi).size() >= stops; });
        }
    };
    trigger("record", 1);
    trigger("pic", 0);
    wait_until([] { return !tk::alarms().empty(); });
    trigger("pic_v", 2);
}

/// An order change from event to all-time, a file recorded, then the order aborted.
void scenario_order_change_abort() {
    script_cloud();
    init_and_wait_config();
    script_mode("alltime");
    tk::deliver_mqtt(300, R"({"data":{"action":"store","storeMode":"alltime"}})");
    wait_uploads(1);
    tk::deliver_mqtt(300, R"({"data":{"action":"abort","storeMode":"alltime"}})");
    wait_until([] { return tk::has_log(tk::Level::debug, "order change done"); });
}

/// Event mode across local midnight: the worker refreshes the day's configuration.
void scenario_daily_refresh() {
    tk::set_time(1705363200 - 20); // 2024-01-15 23:59:40 UTC
    script_cloud();
    init_and_wait_config();
    wait_until([] { return tk::calls("cloud_get_storage_config") >= 2; });
}

struct Scenario {
    const char *name;
    void (*run)();
    int shards; // parts the sweep is split into, each its own test (times VEXO_TORTURE_SHARDS)
};

// Shards in proportion to the calls a scenario makes (ring-buffer reads dominate). Every
// scenario starts with init, so a failure of each call init makes is in every sweep.
const Scenario kScenarios[] = {
    {"event_key_update", scenario_event_with_key_update, 2},
    {"alltime_boundaries", scenario_alltime_boundaries, 8},
    {"remote_triggers", scenario_remote_triggers, 2},
    {"order_change_abort", scenario_order_change_abort, 2},
    {"daily_refresh", scenario_daily_refresh, 1},
};

/// The key a recording announced with enKeyMd5 in its start notification ("0000": none, zeros).
std::optional<Bytes> announced_key(const std::string &start_body) {
    const std::string tag = "\"enKeyMd5\":\"";
    const size_t at = start_body.find(tag);
    if (at == std::string::npos) {
        return std::nullopt;
    }
    const size_t from = at + tag.size();
    const std::string md5 = start_body.substr(from, start_body.find('"', from) - from);
    if (md5 == "0000") {
        return Bytes(16, 0);
    }
    const Bytes cloud(kCloudKey.begin(), kCloudKey.end());
    if (md5 == tk::md5_hex(cloud)) {
        return cloud;
    }
    return std::nullopt;
}

constexpr size_t kKinds = static_cast<size_t>(tk::Fallible::kind_count);

/// What a run fails: the call with that overall index (0: none), and every call of a kind.
struct Plan {
    uint64_t nth;
    std::optional<tk::Fallible> every;
};

/// A part of a scenario's sweep: the calls N with (N - 1) % shards == shard, and the kinds
/// k with k % shards == shard.
struct Part {
    size_t scenario;
    int shard;
    int shards;
};

void PrintTo(const Part &part, std::ostream *os) {
    *os << kScenarios[part.scenario].name << " " << part.shard << "/" << part.shards;
}

class Sweep : public KitTest, public ::testing::WithParamInterface<Part> {
  protected:
    /// Runs the scenario with the plan set by `arm`, uninits, and returns what is wrong ("" when
    /// nothing is). `fatal` is set when the worker did not end: the kit cannot be reset then.
    std::string run_once(const Scenario &s, const Plan &plan, bool *fatal) {
        tk::reset();
        cloud_storage_reset_statics();
        tk::fail_nth_fallible(plan.nth);
        if (plan.every) {
            tk::fail_every(*plan.every, true);
        }
        s.run();
        if (plan.every) {
            // The worker retries the first configuration fetch until it succeeds and only then
            // looks at uninit: a kind failing at every call stops before uninit.
            tk::faults_off();
        }
        if (vexo_ipc_cloud_storage_get_if_inited() != 0) {
            vexo_ipc_cloud_storage_uninit();
        }
        std::string problems;
        if (!tk::wait_threads_exited(kThreadExitMs)) {
            *fatal = true;
            return "worker still running after uninit";
        }
        calls_ = tk::fallible_calls();
        for (size_t k = 0; k < kKinds; ++k) {
            kind_calls_[k] = tk::fallible_calls(static_cast<tk::Fallible>(k));
        }
        problems += leftovers();
        if (problems.empty()) {
            tk::faults_off();
            problems += recovery();
        }
        return problems;
    }

    /// What the module left behind after uninit.
    static std::string leftovers() {
        std::string out;
        auto note = [&out](uint64_t n, const char *what) {
            if (n != 0) {
                out += " " + std::to_string(n) + " " + what + ";";
            }
        };
        note(tk::alloc_stats(tk::Pool::malloc).outstanding, "Malloc blocks outstanding");
        note(tk::alloc_stats(tk::Pool::system).outstanding, "system blocks outstanding");
        note(tk::locked_mutex_count(), "mutexes held");
        note(tk::open_reader_count(), "ring readers open");
        note(tk::kv_outstanding_reads(), "store reads not released");
        for (const tk::Misuse &m : tk::misuses()) {
            out += " misuse [" + m.category + "] " + m.message + ";";
        }
        return out;
    }

    /// The first error and debug lines logged from `from` on, to tell what the module did.
    static std::string log_excerpt(size_t from) {
        const std::vector<tk::LogLine> lines = tk::logs();
        std::string out = " log:";
        size_t shown = 0;
        for (size_t i = from; i < lines.size() && shown < 30; ++i) {
            if (lines[i].level != tk::Level::trace) {
                out += "\n    " + std::to_string(lines[i].at_ms) + " " + lines[i].text;
                ++shown;
            }
        }
        return out + "\n";
    }

    /// With failures off: init again without resetting the module, one event, and every
    /// upload made after it must be whole and decrypt with the key its recording announced.
    static std::string recovery() {
        script_mode("event");
        const size_t logs_before = tk::logs().size();
        const size_t uploads_before = tk::uploads().size();
        const size_t stops_before = tk::posts_of(kStopApi).size();
        init_and_wait_config(kRecoveryWaitMs);
        const int32_t event_rc = motion_event(stops_before + 1, kRecoveryWaitMs);
        // A recording may be stopped and restarted on the way; the event is over once a file
        // was uploaded and a stop followed it.
        wait_until(
            [&] {
                const std::vector<tk::Upload> now = tk::uploads();
                return now.size() > uploads_before &&
                       tk::posts_of(kStopApi).size() > stops_before &&
                       tk::posts_of(kStopApi).back().at_ms >= now.back().at_ms;
            },
            kRecoveryWaitMs);
        vexo_ipc_cloud_storage_uninit();
        if (!tk::wait_threads_exited(kThreadExitMs)) {
            return " recovery: worker still running after uninit;";
        }
        const std::vector<tk::Upload> uploads = tk::uploads();
        const std::vector<tk::Post> starts = tk::posts_of(kStartApi);
        if (uploads.size() <= uploads_before || starts.empty()) {
            return log_excerpt(logs_before) +
                   " recovery: no upload after the failures stopped (event_start " +
                   std::to_string(event_rc) + ", uploads " + std::to_string(uploads_before) +
                   " -> " + std::to_string(uploads.size()) + ", stops " +
                   std::to_string(stops_before) + " -> " +
                   std::to_string(tk::posts_of(kStopApi).size()) + ", start posts " +
                   std::to_string(starts.size()) + ");";
        }
        const std::optional<Bytes> key = announced_key(starts.back().body);
        if (!key) {
            return " recovery: start notification names no known key: " + starts.back().body + ";";
        }
        std::string out;
        for (size_t i = uploads_before; i < uploads.size(); ++i) {
            if (uploads[i].rc != 0) {
                continue;
            }
            const std::string fault = media_file::verify(uploads[i], key->data());
            if (!fault.empty()) {
                out += " recovery: " + uploads[i].file_name + ": " + fault + ";";
            }
        }
        return out + leftovers();
    }

    uint64_t calls_ = 0; // fallible calls of the last run up to its uninit, and per kind
    uint64_t kind_calls_[kKinds] = {};
};

TEST_P(Sweep, EveryFallibleCallFailedInTurnLeavesNothingBehindAndRecordingResumes) {
    const Scenario &s = kScenarios[GetParam().scenario];
    const int shard = GetParam().shard;
    const int shards = GetParam().shards;
    bool fatal = false;
    // The faultless runs are checked like the others; the calls one makes up to its uninit are
    // the range swept. Thread timing can cut a run short: the longest of three is taken.
    uint64_t total = 0;
    std::string per_kind;
    std::vector<Plan> plans;
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(run_once(s, Plan{}, &fatal), "") << "the scenario fails with no fault";
        total = std::max(total, calls_);
    }
    // Every call N in turn; and since thread timing moves a call's index a little from run to
    // run, also every kind the scenario uses failing at each of its calls, once.
    for (uint64_t n = static_cast<uint64_t>(shard) + 1; n <= total;
         n += static_cast<uint64_t>(shards)) {
        plans.push_back(Plan{n, std::nullopt});
    }
    for (size_t k = 0; k < kKinds; ++k) {
        const auto kind = static_cast<tk::Fallible>(k);
        if (kind_calls_[k] != 0) {
            per_kind +=
                std::string(" ") + tk::fallible_name(kind) + "=" + std::to_string(kind_calls_[k]);
            if (k % static_cast<size_t>(shards) == static_cast<size_t>(shard)) {
                plans.push_back(Plan{0, kind});
            }
        }
    }
    std::printf("%s: %llu fallible calls:%s\n", s.name, static_cast<unsigned long long>(total),
                per_kind.c_str());
    ASSERT_GT(total, 0u);

    std::vector<std::string> problems;
    uint64_t runs = 0;
    uint64_t injected_runs = 0;
    // VEXO_TORTURE_N=n runs only that call's failure (in the shard that holds it), to study it.
    const char *only = std::getenv("VEXO_TORTURE_N");
    const uint64_t only_n = only != nullptr ? std::strtoull(only, nullptr, 10) : 0;
    for (const Plan &plan : plans) {
        if (only_n != 0 && plan.nth != only_n) {
            continue;
        }
        ++runs;
        const std::string found = run_once(s, plan, &fatal);
        const std::vector<tk::InjectedFault> injected = tk::injected_faults();
        if (!injected.empty()) {
            ++injected_runs;
        }
        if (!found.empty()) {
            std::string where = plan.every ? std::string("every ") + tk::fallible_name(*plan.every)
                                           : "N=" + std::to_string(plan.nth);
            if (!injected.empty() && !plan.every) {
                where += std::string(" ") + tk::fallible_name(injected[0].kind) + " on \"" +
                         injected[0].thread + "\"";
            }
            problems.push_back(where + ":" + found);
        }
        if (fatal) {
            break;
        }
    }
    std::printf("%s shard %d/%d: %llu runs, %llu with the fault injected, %zu with problems\n",
                s.name, shard, shards, static_cast<unsigned long long>(runs),
                static_cast<unsigned long long>(injected_runs), problems.size());
    for (size_t i = 0; i < problems.size() && i < kMaxReported; ++i) {
        ADD_FAILURE() << s.name << " " << problems[i];
    }
    EXPECT_TRUE(problems.empty()) << problems.size() << " runs with problems";
    if (only_n == 0) {
        EXPECT_GT(injected_runs, 0u);
    }
}

std::vector<Part> all_parts() {
    std::vector<Part> out;
    for (size_t i = 0; i < sizeof(kScenarios) / sizeof(kScenarios[0]); ++i) {
        const int shards = kScenarios[i].shards * VEXO_TORTURE_SHARDS;
        for (int k = 0; k < shards; ++k) {
            out.push_back(Part{i, k, shards});
        }
    }
    return out;
}

std::string part_name(const ::testing::TestParamInfo<Part> &info) {
    return std::string(kScenarios[info.param.scenario].name) + "_" +
           std::to_string(info.param.shard) + "of" + std::to_string(info.param.shards);
}

INSTANTIATE_TEST_SUITE_P(Scenarios, Sweep, ::testing::ValuesIn(all_parts()), part_name);

} // namespace
