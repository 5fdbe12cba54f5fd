// The two MQTT handlers: remote trigger (protocol 307) and order change (protocol 300).
#include <cstring>
#include <string>
#include <vector>

#include "cloud_fixture.h"

namespace {

cloud_storage_ctl_t &ctl = cloud_storage_ctl;
using tk::Level;

std::string request(const std::string &action, int duration) {
    return R"({"data":{"action":")" + action + R"(","duration":)" + std::to_string(duration) +
           R"(,"ext":{ "a" : 1 }}})";
}

class CloudTrigger : public CloudTest {
  protected:
    /// Fresh kit and an empty event table; initialised, enabled, event store mode.
    static void prepare() {
        reset_kit();
        std::memset(ctl.events, 0, sizeof(ctl.events));
        ctl.inited = ctl.enable = ctl.store_mode = 1;
    }
    void SetUp() override {
        CloudTest::SetUp();
        prepare();
    }
    static void trigger(const std::string &json) {
        deliver(__cloud_storage_iot_event_trigger_callback, json);
    }
    static std::vector<cloud_storage_event> used_slots() {
        std::vector<cloud_storage_event> out;
        for (const cloud_storage_event &e : ctl.events) {
            if (e.status != EVENT_NONE) {
                out.push_back(e);
            }
        }
        return out;
    }
};

TEST_F(CloudTrigger, RefusedRequestsLogReportAndRaiseNothing) {
    const struct {
        std::string json;
        int32_t inited, enable, snapshot_size, slots_taken;
        Level level;
        const char *log;
        Texts trail;
    } cases[] = {
        // clang-format off
        {"{}", 1, 1, -1, 0, Level::err, "data null", {}},
        {R"({"data":{"duration":5,"ext":1}})", 1, 1, -1, 0, Level::err, "action null", {}},
        {R"({"data":{"action":"pic","ext":1}})", 1, 1, -1, 0, Level::err, "duration null", {}},
        {R"({"data":{"action":"pic","duration":5}})", 1, 1, -1, 0, Level::err, "ext null", {}},
        {request("record", 1801), 0, 1, -1, 0, Level::debug, "not inited, just return", {"40'record'", "r41"}},
        {request("record", 1801), 1, 0, -1, 0, Level::err, "duration too big 1801", {"40'record'", "r42:1801"}},
        {request("pic", 10), 1, 0, -1, 0, Level::debug, "cloud storage is disabled now", {"40'pic'", "r44"}},
        {request("pic_video", 10), 1, 1, -1, 0, Level::err, "unsupported action", {"40'pic_video'"}},
        {request("record", 10), 1, 1, 0, 0, Level::err, "fail to get snap or oversize 0", {"40'record'", "r46:0"}},
        {request("pic", 10), 1, 1, 102401, 0, Level::err, "fail to get snap or oversize 102401",
         {"40'pic'", "r46:102401"}},
        {request("pic_v", 10), 1, 1, -1, CS_EVENT_SLOTS, Level::err, "fail to add event", {"40'pic_v'", "r47"}},
        // clang-format on
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.json);
        prepare();
        ctl.inited = c.inited;
        ctl.enable = c.enable;
        for (int i = 0; i < c.slots_taken; ++i) {
            ctl.events[i].status = EVENT_READY;
        }
        if (c.snapshot_size >= 0) {
            tk::set_snapshot_size(c.snapshot_size);
        }
        trigger(c.json);
        EXPECT_EQ(tk::count_logs(c.level, c.log), 1u);
        EXPECT_EQ(errors().size(), c.level == Level::err ? 1u : 0u);
        EXPECT_EQ(trail(), c.trail);
        EXPECT_TRUE(tk::alarms().empty());
        EXPECT_EQ(used_slots().size(), static_cast<size_t>(c.slots_taken));
        EXPECT_EQ(tk::alloc_stats(tk::Pool::malloc).outstanding, 0u);
    }
}

TEST_F(CloudTrigger, ActionsRaiseAlarmAndAddRecordingEvent) {
    const struct {
        const char *action;
        uint32_t picture;
        bool records;
    } cases[] = {{"pic", 1, false}, {"record", 0, true}, {"pic_v", 1, true}};
    std::vector<uint8_t> picture(102400, 0x5A); // the largest accepted
    picture.back() = 0xD9;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.action);
        prepare();
        tk::set_snapshot(picture);
        trigger(request(c.action, 1800));
        const auto alarms = tk::alarms();
        ASSERT_EQ(alarms.size(), 1u);
        const tk::Alarm &a = alarms[0];
        EXPECT_EQ((std::vector<uint32_t>{a.kind, a.reserved0, a.with_picture, a.time, a.reserved1,
                                         a.flags[0], a.flags[1], a.flags[2], a.reserved2[0],
                                         a.reserved2[1], a.reserved2[2], a.reserved2[3]}),
                  (std::vector<uint32_t>{4, 0, c.picture, 1705305600, 0, 1, 1, 1, 0, 0, 0, 0}));
        EXPECT_EQ(a.extra, R"("ext":{"a":1})");
        EXPECT_TRUE(a.picture_size == 102400u && a.picture == picture);
        const auto slots = used_slots();
        ASSERT_EQ(slots.size(), c.records ? 1u : 0u);
        if (c.records) {
            EXPECT_EQ(slots[0].type, EVENT_TYPE_IOT);
            EXPECT_STREQ(slots[0].notify_json,
                         R"({"v":2,"startTime":1705305600,"endTime":1705307400,"eventType":2,)"
                         R"("sourceId":{"a":1}})");
        }
        EXPECT_EQ(trail(), (Texts{"40'" + std::string(c.action) + "'", "r49"}));
        EXPECT_TRUE(errors().empty());
        EXPECT_EQ(tk::alloc_stats(tk::Pool::malloc).outstanding, 0u);
    }
}

TEST_F(CloudTrigger, InvalidStoreModeRefusesRecordingButPictureStillAlarms) {
    ctl.store_mode = 2;
    trigger(request("pic", 30));
    trigger(request("record", 30));
    EXPECT_EQ(errors(), Texts{"cloud storage type error 2"});
    EXPECT_EQ(tk::alarms().size(), 1u);
    EXPECT_EQ(trail(), (Texts{"40'pic'", "r49", "40'record'"}));
    EXPECT_TRUE(used_slots().empty());

    // A remote peer can repeat the refused request at will: each one must give back its
    // snapshot buffer, or camera memory grows with every message.
    for (const char *action : {"record", "pic_v"}) {
        SCOPED_TRACE(action);
        prepare();
        ctl.store_mode = 2;
        const uint64_t calls_before = tk::alloc_stats(tk::Pool::malloc).calls;
        for (int i = 0; i < 50; ++i) {
            trigger(request(action, 30));
            ASSERT_EQ(tk::alloc_stats(tk::Pool::malloc).outstanding, 0u) << "after request " << i;
        }
        // The snapshot was taken each time (one buffer per request), then released.
        EXPECT_EQ(tk::alloc_stats(tk::Pool::malloc).calls - calls_before, 50u);
        EXPECT_EQ(tk::count_logs(Level::err, "cloud storage type error 2"), 50u);
        EXPECT_TRUE(tk::alarms().empty());
        EXPECT_TRUE(used_slots().empty());
    }
}

using CloudOrder = CloudTest;

TEST_F(CloudOrder, ChangeByActionHeldModeAndInitState) {
    const char *store_event = R"({"data":{"action":"store","storeMode":"event"}})";
    const char *store_alltime = R"({"data":{"action":"store","storeMode":"alltime"}})";
    const char *abort = R"({"data":{"action":"abort","storeMode":"event"}})";
    const char *fetched = "70@1705305600";
    const struct {
        int32_t inited, mode;
        const char *held, *json;
        int32_t fetch_rc;  // -1: no fetch may run
        const char *after; // store_mode and its text afterwards
        uint64_t broadcasts;
        Texts trail;
        const char *log; // a debug line; none: no log line at all
    } cases[] = {
        // clang-format off
        {1, 1, "event", store_event, -1, "1 event", 1, {"10'store'", "12'event'", "r13"}, "keep going"},
        {1, 2, "max", R"({"data":{"action":"store"}})", -1, "2 max", 1, {"10'store'", "12'max'", "r13"}, "keep going"},
        {1, 1, "event", store_alltime, 0, "0 alltime", 1,
         {"10'store'", "12'alltime'", fetched, "72'alltime'", "73'local'", "r74"}, "order change done"},
        {1, 1, "event", store_alltime, -7, "1 event", 1, {"10'store'", "12'alltime'", fetched},
         "new cloud type -> 1"},
        {1, 0, "alltime", abort, -1, "2 max", 1, {"10'abort'", "12'max'", "r14"}, "order change done"},
        {0, 1, "event", abort, -1, "1 event", 0, {"10'abort'", "r11"}, "not inited, just return"},
        {1, 1, "event", R"({"data":{"action":"pause"}})", -1, "1 event", 0, {}, "action:pause\n"},
        {1, 1, "event", R"({"action":"abort"})", -1, "1 event", 0, {}, nullptr},
        {1, 1, "event", R"({"data":{"storeMode":"max"}})", -1, "1 event", 0, {}, nullptr},
        // clang-format on
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.json);
        reset_kit();
        ctl.inited = c.inited;
        ctl.store_mode = c.mode;
        set_mode_text(c.held);
        // The fetch runs with upload_mutex held.
        tk::set_hook("cloud_get_storage_config", [] { EXPECT_EQ(tk::locked_mutex_count(), 1u); });
        tk::queue_storage_config(c.fetch_rc, tk::make_storage_config("alltime", 30, 10, 0, 0));
        deliver(__cloud_storage_order_change_callback, c.json);
        EXPECT_EQ(tk::calls("cloud_get_storage_config"), c.fetch_rc == -1 ? 0u : 1u);
        EXPECT_EQ(std::to_string(ctl.store_mode) + " " + ctl.storage_config.store_mode, c.after);
        EXPECT_EQ(tk::calls("cloud_cfg_broadcast_update_status"), c.broadcasts);
        EXPECT_EQ(trail(), c.trail);
        EXPECT_EQ(c.log != nullptr ? tk::count_logs(Level::debug, c.log) : tk::logs().size(),
                  c.log != nullptr ? 1u : 0u);
        const bool done = c.broadcasts == 1 && c.trail.back() != "r13";
        EXPECT_EQ(tk::count_logs(Level::debug, "order change done"), done ? 1u : 0u);
    }
}

} // namespace
