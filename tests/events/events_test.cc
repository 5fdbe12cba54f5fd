// The event table primitives, the scheduling passes and the exported event calls, driven on
// the kit without init or the upload thread: the table is set up as init leaves it, and the
// tests of exported calls mark the module initialised by hand.
#include <string>
#include <tuple>
#include <vector>

#include "kit_fixture.h"

namespace {

constexpr uint32_t kT0 = 1705305600; // kit clock after reset, seconds
using Seq = std::vector<std::tuple<bool, uint32_t, int64_t>>;

cloud_storage_ctl_t &ctl() {
    return cloud_storage_ctl;
}

int32_t add(int32_t type, uint32_t start, uint32_t end, const char *source = nullptr) {
    return __add_event_to_list(&ctl(), type, start, end, source);
}

/// Debug lines beginning with prefix, in order.
std::vector<std::string> debug_lines(const std::string &prefix) {
    std::vector<std::string> out;
    for (const tk::LogLine &line : tk::logs()) {
        if (line.level == tk::Level::debug && line.text.rfind(prefix, 0) == 0) {
            out.push_back(line.text);
        }
    }
    return out;
}

/// Sequence-log entries of that number as (report, kind, value).
Seq seq(uint32_t number) {
    Seq out;
    for (const tk::SeqEntry &e : tk::seq_entries(number)) {
        EXPECT_EQ(e.module, "cloud_storage");
        out.emplace_back(e.report, e.kind, e.value);
    }
    return out;
}

std::vector<int32_t> statuses() {
    std::vector<int32_t> out;
    for (const cloud_storage_event &slot : ctl().events) {
        out.push_back(slot.status);
    }
    return out;
}

void expect_freed(const cloud_storage_event &slot, uint32_t id, uint32_t start, uint32_t end) {
    EXPECT_EQ(std::make_tuple(slot.status, slot.type, slot.notify_type),
              std::make_tuple(EVENT_NONE, EVENT_TYPE_NONE, EVENT_NOTIFY_NONE));
    EXPECT_EQ(std::string(slot.notify_json, sizeof slot.notify_json),
              std::string(sizeof slot.notify_json, '\0'));
    EXPECT_EQ(std::make_tuple(slot.id, slot.start_time, slot.end_time),
              std::make_tuple(id, start, end)); // kept
}

class EventTest : public KitTest {
  protected:
    void SetUp() override {
        KitTest::SetUp();
        ASSERT_EQ(vexo_hal_mutex_create_init(&ctl().event_mutex), 0);
        for (cloud_storage_event &slot : ctl().events) {
            slot.id = EVENT_ID_NONE;
            slot.status = EVENT_NONE;
            slot.type = EVENT_TYPE_NONE;
        }
        ctl().enable = 1;
        ctl().store_mode = STORE_MODE_ALLTIME;
        ctl().storage_config.event_duration = 30;
    }
    void TearDown() override {
        ctl().inited = 0; // set by hand; no thread to stop
        KitTest::TearDown();
    }
};

TEST_F(EventTest, SixAddsTakeIdsOneToSixSeventhIsRefusedSilentlyAndFreedSlotIsReused) {
    for (int i = 0; i < CS_EVENT_SLOTS; ++i) {
        EXPECT_EQ(add(i + 3, kT0, kT0 + 10), i + 1);
    }
    const size_t lines = tk::logs().size();
    EXPECT_EQ(add(9, kT0, kT0 + 10), -1);
    EXPECT_EQ(tk::logs().size(), lines);

    __mark_event_to_fast_stop(&ctl(), 6); // slot 3, not yet due by time
    __stop_event_if_needed(&ctl(), kT0, kT0);
    EXPECT_EQ(debug_lines("event index"), std::vector<std::string>{"event index 3 stop"});
    EXPECT_EQ(add(9, kT0, kT0 + 10), 7);
    EXPECT_EQ(debug_lines("new event index 3").back(),
              "new event index 3, id: 7, added: type 9,notify type 2[1705305600-1705305610]");
}

TEST_F(EventTest, AddChoosesNotifyTypeAndStoresEndNotAfterStartAsOpen) {
    EXPECT_EQ(add(5, 1000, 1000), 1);
    EXPECT_EQ(add(EVENT_TYPE_UNKNOWN, 1000, 999), 2);
    EXPECT_EQ(add(EVENT_TYPE_IOT, 1000, 1030), -1);
    EXPECT_EQ(tk::count_logs(tk::Level::err, "no data for iot event"), 1u);
    EXPECT_EQ(add(EVENT_TYPE_IOT, 1000, 1000, "{\"cam\":\"a1\"}"), 3); // the slot stayed free
    EXPECT_EQ(add(0, 1000, 1030), 4);
    EXPECT_EQ(debug_lines("new event index"),
              (std::vector<std::string>{
                  "new event index 0, id: 1, added: type 5,notify type 2[1000-1000]",
                  "new event index 1, id: 2, added: type 16,notify type 0[1000-999]",
                  "new event index 2, id: 3, added: type 2,notify type 1[1000-1000]",
                  "new event index 3, id: 4, added: type 0,notify type 2[1000-1030]"}));
    EXPECT_EQ(std::make_tuple(ctl().events[0].end_time, ctl().events[1].end_time,
                              ctl().events[2].end_time, ctl().events[3].end_time),
              std::make_tuple(0u, 0u, 0u, 1030u));
    const std::string text =
        R"({"v":2,"startTime":1000,"endTime":1000,"eventType":2,"sourceId":{"cam":"a1"}})";
    EXPECT_EQ(std::string(ctl().events[2].notify_json), text);
}

TEST_F(EventTest, PreRecordIsNeededOnlyWithReadyEventsAndNoneOngoing) {
    EXPECT_EQ(__pre_record_av_needed(&ctl()), 0);
    ctl().events[4].status = EVENT_READY;
    ctl().events[5].status = EVENT_READY;
    EXPECT_EQ(__pre_record_av_needed(&ctl()), 1);
    ctl().events[5].status = EVENT_ONGOING; // after a ready slot still counts
    EXPECT_EQ(__pre_record_av_needed(&ctl()), 0);
}

TEST_F(EventTest, StatusByIdMinusOneIsInvalidWithoutLocking) {
    const int32_t id = add(5, kT0, kT0 + 10);
    const uint64_t locks = tk::calls("vexo_hal_mutex_lock");
    EXPECT_EQ(__get_event_status_by_id(&ctl(), EVENT_ID_NONE), EVENT_INVALID);
    EXPECT_EQ(tk::calls("vexo_hal_mutex_lock"), locks);
    EXPECT_EQ(vexo_ipc_cloud_storage_get_event_status_by_id(id), EVENT_READY);
}

TEST_F(EventTest, StopPassFreesOpenAndDueEventsInIndexOrder) {
    add(5, 1000, 1000); // open end
    add(5, 1000, 1010);
    add(6, 1000, 1010);
    add(7, 1000, 1011);
    __stop_event_if_needed(&ctl(), 0, 0); // before any frame: only the open end is due
    EXPECT_EQ(statuses(), (std::vector<int32_t>{0, 2, 2, 2, 0, 0}));
    __stop_event_if_needed(&ctl(), 1010, 1010);
    EXPECT_EQ(statuses(), (std::vector<int32_t>{0, 0, 0, 2, 0, 0}));
    EXPECT_EQ(debug_lines("event index"),
              (std::vector<std::string>{"event index 0 stop", "event index 1 stop",
                                        "event index 2 stop"}));
    expect_freed(ctl().events[2], 3, 1000, 1010);
}

TEST_F(EventTest, MarkToStopEndsLowerIndexMotionEventAtNewestFrameElseClock) {
    add(5, kT0, kT0 + 100);
    add(0, kT0, kT0 + 100);
    add(0, kT0, kT0 + 100);
    tk::advance(5000);
    __mark_event_to_stop(&ctl(), 0); // ring empty: wall clock
    EXPECT_EQ(std::make_tuple(ctl().events[0].end_time, ctl().events[1].end_time,
                              ctl().events[2].end_time),
              std::make_tuple(kT0 + 100, kT0 + 5, kT0 + 100));
    tk::push_frame(0, 1, {1, 2, 3}, uint64_t{kT0 + 42} * 1000 + 999, 0);
    __mark_event_to_stop(&ctl(), 0);
    EXPECT_EQ(ctl().events[1].end_time, kT0 + 42);
    __delete_event_from_list(&ctl(), 3);
    EXPECT_EQ(ctl().events[2].end_time, kT0 + 42);

    __mark_event_to_fast_stop(&ctl(), 0);
    EXPECT_EQ(std::make_tuple(ctl().events[1].fast_stop, ctl().events[2].fast_stop),
              std::make_tuple(1, 0));
}

TEST_F(EventTest, StartPassStartsLowestReadySlotAndForceStopFreesAllKeepingFastStop) {
    add(0, kT0, kT0 + 10);
    add(5, kT0, kT0 + 10);
    add(6, kT0, kT0 + 10);
    __start_event_if_needed(&ctl());
    EXPECT_EQ(statuses(), (std::vector<int32_t>{1, 2, 2, 0, 0, 0}));
    __start_event_if_needed(&ctl());
    EXPECT_EQ(statuses(), (std::vector<int32_t>{1, 1, 2, 0, 0, 0}));
    __mark_event_to_fast_stop(&ctl(), 0);
    ctl().events[2].status = EVENT_INVALID; // any non-zero status counts as used
    __force_all_event_stop(&ctl(), kT0 + 3);
    EXPECT_EQ(debug_lines("force event"),
              (std::vector<std::string>{"force event 0 stop done", "force event 1 stop done",
                                        "force event 2 stop done"}));
    expect_freed(ctl().events[0], 1, kT0, kT0 + 10);
    EXPECT_EQ(ctl().events[0].fast_stop, 1);
    EXPECT_EQ(add(5, kT0, kT0 + 10), 4);
    EXPECT_EQ(ctl().events[0].fast_stop, 0);
}

TEST_F(EventTest, ReconciliationResolvesOpenEndsOrCleansWhenCountIsUsedUp) {
    ctl().storage_config.event_duration = 45;
    add(5, 1000, 1000);
    add(6, 1000, 1010);
    __start_event_if_needed(&ctl());
    cloud_storage_reconcile_events(&ctl(), 0);
    EXPECT_EQ(std::make_tuple(ctl().events[0].end_time, ctl().events[1].end_time),
              std::make_tuple(1045u, 1010u));
    EXPECT_EQ(statuses(), (std::vector<int32_t>{1, 2, 0, 0, 0, 0}));

    ctl().events[1].fast_stop = 1;
    cloud_storage_reconcile_events(&ctl(), CS_NOT_ALLOWED);
    EXPECT_EQ(debug_lines("event index"),
              (std::vector<std::string>{"event index 0 clean", "event index 1 clean"}));
    expect_freed(ctl().events[1], 2, 1000, 1010);
    EXPECT_EQ(ctl().events[1].fast_stop, 0);
}

// ---- exported calls ----------------------------------------------------------------------

TEST_F(EventTest, EventStartIsRefusedWhileAnyEventIsInTheTable) {
    ctl().inited = 1;
    EXPECT_EQ(vexo_ipc_cloud_storage_event_add_record_only(7, 20), 1);
    EXPECT_EQ(seq(50), (Seq{{false, 3, kT0}}));
    tk::advance(2000);
    EXPECT_EQ(vexo_ipc_cloud_storage_event_start(), CS_NOT_ALLOWED);
    EXPECT_EQ(tk::count_logs(tk::Level::err, "event on going now, stop it first"), 1u);
    EXPECT_EQ(seq(55), (Seq{{false, 3, kT0 + 2}}));
    EXPECT_EQ(seq(56), (Seq{{true, 0, 0}}));

    EXPECT_EQ(vexo_ipc_cloud_storage_event_delete(1), 0);
    EXPECT_EQ(vexo_ipc_cloud_storage_event_delete(99), 0);
    EXPECT_EQ(seq(54), (Seq{{false, 1, 1}, {false, 1, 99}}));
    __stop_event_if_needed(&ctl(), kT0 + 2, kT0 + 2);

    EXPECT_EQ(vexo_ipc_cloud_storage_event_start(), 0);
    EXPECT_EQ(std::make_tuple(ctl().events[0].type, ctl().events[0].id, ctl().events[0].end_time),
              std::make_tuple(EVENT_TYPE_MD, 2u, kT0 + 32));
    EXPECT_EQ(tk::count_logs(tk::Level::debug, "new event added to list, time 1705305602"), 1u);
}

TEST_F(EventTest, AddRecordOnlyChecksInputBeforeInitialisation) {
    const struct {
        int32_t type, duration;
        const char *text;
    } cases[] = {{18, 0, "invalid input  type 18(18) duration 0(300)"},
                 {0, 301, "invalid input  type 0(18) duration 301(300)"},
                 {-1, 0, "invalid input  type -1(18) duration 0(300)"},
                 {3, -5, "invalid input  type 3(18) duration -5(300)"}};
    for (const auto &c : cases) {
        EXPECT_EQ(vexo_ipc_cloud_storage_event_add_record_only(c.type, c.duration), -1);
        EXPECT_EQ(tk::count_logs(tk::Level::err, c.text), 1u) << c.text;
    }
    EXPECT_EQ(tk::count_logs(tk::Level::err, "cloud storage not inited"), 0u);
    EXPECT_EQ(vexo_ipc_cloud_storage_event_add_record_only(17, 300), -1);
    EXPECT_EQ(tk::count_logs(tk::Level::err, "cloud storage not inited"), 1u);

    ctl().inited = 1;
    EXPECT_EQ(vexo_ipc_cloud_storage_event_add_record_only(17, 300), 1);
    EXPECT_EQ(tk::count_logs(tk::Level::debug,
                             "add event start done, event_id 1 time 1705305600-1705305900"),
              1u);
    EXPECT_EQ(vexo_ipc_cloud_storage_event_add_record_only(EVENT_TYPE_IOT, 10), -1);
    EXPECT_EQ(tk::count_logs(tk::Level::err, "fail to add event"), 1u);
    EXPECT_EQ(seq(51), (Seq{{true, 0, 0}}));
}

TEST_F(EventTest, DisabledOrNoValidOrderRefusals) {
    ctl().inited = 1;
    ctl().enable = 0; // add-record-only answers -1, the others -2000
    EXPECT_EQ(vexo_ipc_cloud_storage_event_add_record_only(5, 10), -1);
    EXPECT_EQ(vexo_ipc_cloud_storage_event_start(), CS_NOT_ALLOWED);
    EXPECT_EQ(vexo_ipc_cloud_storage_set_event_type(1, 5), CS_NOT_ALLOWED);
    EXPECT_EQ(vexo_ipc_cloud_storage_event_notify(1, 5), CS_NOT_ALLOWED);
    EXPECT_EQ(tk::count_logs(tk::Level::debug, "cloud storage is disabled now"), 4u);
    EXPECT_TRUE(tk::seq_log().empty());

    ctl().enable = 1; // no valid order: events are still added, retype and notify refused
    ctl().store_mode = STORE_MODE_NONE;
    EXPECT_EQ(vexo_ipc_cloud_storage_event_start(), 0);
    EXPECT_EQ(vexo_ipc_cloud_storage_event_add_record_only(5, 10), 2);
    EXPECT_EQ(vexo_ipc_cloud_storage_set_event_type(1, 5), CS_NOT_ALLOWED);
    EXPECT_EQ(vexo_ipc_cloud_storage_event_notify(1, 5), CS_NOT_ALLOWED);
    EXPECT_EQ(tk::count_logs(tk::Level::err, "cloud storage type error 2"), 2u);
}

TEST_F(EventTest, EventModeSilenceAndQuotaRefusalsPassCheckResultAfterDailyRefresh) {
    const uint32_t now = kT0 + 16 * 3600 + 600; // next day, 00:10 local: refresh may run
    tk::set_time(now);
    tk::queue_storage_config(0, tk::make_storage_config("event", 30, 10, 0, 0));
    ctl().inited = 1;
    ctl().store_mode = STORE_MODE_EVENT;
    ctl().silence_interval = 60;
    ctl().silence_end_time = now + 1;
    EXPECT_EQ(vexo_ipc_cloud_storage_event_start(), CS_NOT_ALLOWED);
    EXPECT_EQ(vexo_ipc_cloud_storage_event_add_record_only(5, 10), CS_NOT_ALLOWED);
    EXPECT_EQ(tk::count_logs(tk::Level::err, "cloud storage event enter silence time"), 2u);
    EXPECT_EQ(std::make_tuple(seq(55).size(), seq(50).size()), std::make_tuple(1u, 1u));
    EXPECT_EQ(tk::calls("cloud_get_storage_config"), 0u);

    ctl().silence_end_time = now; // ends now: outside the silence
    ctl().count_left = 0;
    EXPECT_EQ(vexo_ipc_cloud_storage_event_add_record_only(5, 10), CS_NOT_ALLOWED);
    EXPECT_EQ(tk::calls("cloud_get_storage_config"), 1u); // refreshed, still no events left
    EXPECT_EQ(vexo_ipc_cloud_storage_event_start(), CS_NOT_ALLOWED);
    EXPECT_EQ(tk::calls("cloud_get_storage_config"), 1u); // once a day
    EXPECT_EQ(tk::count_logs(tk::Level::err, "cloud storage event over limits today"), 2u);
    EXPECT_EQ(__event_list_is_empty(&ctl()), 1);
    ctl().count_left = 1;
    EXPECT_EQ(vexo_ipc_cloud_storage_event_start(), 0);
}

TEST_F(EventTest, SetTypeRefusesUnknownTypeWhileNotifyAcceptsIt) {
    ctl().inited = 1;
    ASSERT_EQ(vexo_ipc_cloud_storage_event_add_record_only(EVENT_TYPE_UNKNOWN, 10), 1);
    EXPECT_EQ(vexo_ipc_cloud_storage_set_event_type(1, 16), CS_BAD_ARG);
    EXPECT_EQ(vexo_ipc_cloud_storage_set_event_type(1, 18), CS_BAD_ARG);
    EXPECT_EQ(vexo_ipc_cloud_storage_event_notify(1, 18), CS_BAD_ARG);
    EXPECT_EQ(tk::count_logs(tk::Level::err, "invalid event type"), 3u);
    EXPECT_EQ(vexo_ipc_cloud_storage_event_notify(1, 16), 0);
    EXPECT_EQ(vexo_ipc_cloud_storage_event_notify(99, 5), 0);
    EXPECT_EQ(debug_lines("event notify"),
              (std::vector<std::string>{"event notify for type 16 id 1", "event notify done",
                                        "event notify for type 5 id 99", "event notify done"}));
    EXPECT_EQ(std::make_tuple(ctl().events[0].type, ctl().events[0].notify_type),
              std::make_tuple(EVENT_TYPE_UNKNOWN, EVENT_NOTIFY_NONE)); // notify leaves it

    // Retyping gives an event without notification the normal one; a freed slot is missed.
    EXPECT_EQ(vexo_ipc_cloud_storage_set_event_type(1, 5), 0);
    EXPECT_EQ(std::make_tuple(ctl().events[0].type, ctl().events[0].notify_type),
              std::make_tuple(5, EVENT_NOTIFY_NORMAL));
    EXPECT_EQ(vexo_ipc_cloud_storage_set_event_type(99, 5), CS_BAD_ARG);
    __stop_event_if_needed(&ctl(), kT0 + 10, kT0 + 10);
    EXPECT_EQ(vexo_ipc_cloud_storage_set_event_type(1, 6), CS_BAD_ARG);
    EXPECT_EQ(__get_event(&ctl(), 1), nullptr);
    EXPECT_EQ(debug_lines("event type set done"),
              (std::vector<std::string>{"event type set done, ret:0", "event type set done, ret:-2",
                                        "event type set done, ret:-2"}));
}

TEST_F(EventTest, EventStopReturnsAfterOneSleepWithoutMotionEventElseTimesOutAfter301Polls) {
    ctl().inited = 1;
    ASSERT_EQ(vexo_ipc_cloud_storage_event_add_record_only(5, 10), 1);
    EXPECT_EQ(vexo_ipc_cloud_storage_event_stop(), 0);
    EXPECT_EQ(tk::sleeps_of(""), std::vector<uint32_t>{100});
    EXPECT_EQ(tk::count_logs(tk::Level::debug, "stop event done"), 1u);
    EXPECT_EQ(ctl().events[0].end_time, kT0 + 10); // not a motion event: untouched

    ASSERT_EQ(vexo_ipc_cloud_storage_event_add_record_only(EVENT_TYPE_MD, 10), 2);
    tk::advance(2900);
    EXPECT_EQ(vexo_ipc_cloud_storage_event_stop(), -1); // no thread frees it
    EXPECT_EQ(tk::sleeps_of(""), std::vector<uint32_t>(302, 100));
    EXPECT_EQ(seq(59), (Seq{{true, 0, 0}}));
    EXPECT_EQ(tk::count_logs(tk::Level::debug, "stop event timeout, force return"), 1u);
    EXPECT_EQ(std::make_tuple(ctl().events[1].status, ctl().events[1].end_time),
              std::make_tuple(EVENT_READY, kT0 + 3));
}

} // namespace
