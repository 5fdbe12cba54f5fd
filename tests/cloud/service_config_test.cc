// Service configuration fetch, silence and quota tests, daily refresh and readiness.
#include <string>

#include "cloud_fixture.h"

namespace {

using CloudConfig = CloudTest;
cloud_storage_ctl_t &ctl = cloud_storage_ctl;

constexpr uint32_t kNow = 1705305600; // the kit's clock: 08:00 UTC
constexpr int32_t kZone = 3600;       // local time is UTC + 1 h
/// Local day 2024-01-15 + day at h:m, as POSIX seconds.
uint32_t local_time(int day, int h, int m) {
    return 1705276800u - kZone + static_cast<uint32_t>(day * 86400 + h * 3600 + m * 60);
}
uint64_t fetches() {
    return tk::calls("cloud_get_storage_config");
}
/// The configuration state in one line; times as "-" (unset) or seconds after kNow.
std::string state() {
    auto t = [](uint32_t v) { return v == 0 ? std::string("-") : std::to_string(v - kNow); };
    return "mode " + std::to_string(ctl.store_mode) + " have " + std::to_string(ctl.have_config) +
           " left " + std::to_string(ctl.count_left) + " quiet " +
           std::to_string(ctl.silence_interval) + " cfg " + t(ctl.config_time) + " bad " +
           t(ctl.order_invalid_time) + " '" + ctl.storage_config.store_mode + "'";
}

TEST_F(CloudConfig, FetchAppliesAnswerOrMarksOrderInvalid) {
    const std::string t = "70@" + std::to_string(kNow);
    const struct {
        int32_t rc;
        const char *text, *cloud;
        int32_t result;
        const char *state;
        Texts trail;
        const char *log; // an error line for rc -7, else a debug line
    } cases[] = {
        // clang-format off
        {0, "event", "local", 0, "mode 1 have 1 left 5 quiet 120 cfg 0 bad - 'event'",
         {t, "72'event'", "73'local'", "r74"}, "count_left: 5, silence_interval: 120"},
        {0, "alltime", "azure", 0, "mode 0 have 1 left 5 quiet 120 cfg 0 bad - 'alltime'",
         {t, "72'alltime'", "73'azure'", "r74"}, "store mode update to alltime"},
        {-2002, "event", "local", -2004, "mode 2 have 1 left 3 quiet 0 cfg - bad 0 'max'",
         {t, "r71:-2002"}, "order expire or remote server error"},
        {-2006, "event", "local", -2004, "mode 2 have 1 left 3 quiet 0 cfg - bad 0 'max'",
         {t, "r71:-2006"}, "order expire or remote server error"},
        {-7, "event", "local", -7, "mode 1 have 0 left 3 quiet 0 cfg - bad 0 'held'",
         {t}, "fail to get cloud config ret -7"},
        {0, "alltime ", "local", -2004, "mode 2 have 1 left 3 quiet 0 cfg - bad 0 'alltime '",
         {t, "72'alltime '"}, "store mode update to alltime "},
        // clang-format on
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::to_string(c.rc) + c.text);
        reset_kit();
        ctl.store_mode = 1;
        ctl.have_config = 0;
        ctl.count_left = 3;
        ctl.silence_interval = ctl.config_time = ctl.order_invalid_time = 0;
        set_mode_text("held");
        tk::queue_storage_config(c.rc, tk::make_storage_config(c.text, 30, 10, 120, 5, c.cloud));
        EXPECT_EQ(__update_cloud_storage_config(), c.result);
        EXPECT_EQ(state(), c.state);
        EXPECT_EQ(trail(), c.trail);
        EXPECT_EQ(errors(), c.rc == -7 ? Texts{c.log} : Texts{});
        EXPECT_TRUE(c.rc == -7 || tk::count_logs(tk::Level::debug, c.log) == 1);
    }
}

TEST_F(CloudConfig, SilenceQuotaAndReadinessByMode) {
    tk::record_trace(true);
    const char *in = "cloud storage in silence time", *out = "cloud storage out silence time";
    const struct {
        int32_t mode;
        uint32_t interval, end;
        int32_t count, silence, quota, ready;
        const char *trace; // the silence test's one line, or none
    } cases[] = {
        // clang-format off
        {1, 0, kNow + 100, 1, 0, 0, 1, out},   {1, 60, kNow + 1, 1, -2000, 0, 0, in},
        {1, 60, kNow, 0, 0, -2000, 0, out},    {0, 60, kNow + 100, 0, 0, 0, 1, nullptr},
        {2, 0, 0, 5, -1, -1, 0, nullptr},
        // clang-format on
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(::testing::Message() << c.mode << "/" << c.interval << "/" << c.end);
        tk::clear_logs();
        ctl.store_mode = c.mode;
        ctl.silence_interval = c.interval;
        ctl.silence_end_time = c.end;
        ctl.count_left = c.count;
        EXPECT_EQ(__check_silence_time(kNow), c.silence);
        ASSERT_EQ(tk::logs().size(), c.trace != nullptr ? 1u : 0u);
        EXPECT_TRUE(c.trace == nullptr || tk::logs()[0].text == c.trace);
        EXPECT_EQ(__check_event_count(), c.quota);
        EXPECT_EQ(tk::logs().back().text,
                  "cloud storage event count left: " + std::to_string(c.count));
        EXPECT_EQ(vexo_ipc_cloud_storage_get_ready(), c.ready);
    }
    EXPECT_EQ(fetches(), 0u); // 08:00 is outside the daily refresh hour
}

TEST_F(CloudConfig, ReadinessRefreshesSpentQuotaOnceInFirstLocalHourFromMinuteThree) {
    tk::set_zone_offset(kZone);
    ctl.store_mode = 1;
    const struct {
        uint32_t at;
        int32_t rc;       // answer of a fetch, should one run
        uint64_t fetches; // so far
        size_t failures;  // "fail to update cloud storage config" lines so far
        int32_t ready;
    } steps[] = {
        // clang-format off
        {local_time(0, 0, 2) + 59, 0, 0, 0, 0}, {local_time(0, 0, 3), -7, 1, 1, 0},
        {local_time(0, 0, 4), 0, 2, 1, 1},      {local_time(0, 0, 30), 0, 2, 1, 0},
        {local_time(2, 0, 10), 0, 3, 1, 1},
        {local_time(3, 1, 10), 0, 3, 1, 0}, // 00:10 UTC is not local midnight
        // clang-format on
    };
    for (const auto &s : steps) {
        SCOPED_TRACE(s.at);
        tk::set_time(s.at);
        tk::set_default_storage_config(s.rc, tk::make_storage_config("event", 30, 10, 0, 4));
        ctl.count_left = 0; // the day's events are spent: readiness asks for the refresh
        EXPECT_EQ(vexo_ipc_cloud_storage_get_ready(), s.ready);
        EXPECT_EQ(fetches(), s.fetches);
        EXPECT_EQ(tk::count_logs(tk::Level::err, "fail to update cloud storage config"),
                  s.failures);
    }
}

} // namespace
