/// Device limits as the service applies them: quotas refuse uploads and alarms past them and
/// store nothing, a device cap refuses new devices, and retention deletes the oldest closed
/// recordings (files and rows) and leaves open ones, also in the background.
#include <condition_variable>
#include <filesystem>
#include <stdexcept>

#include "service_fixture.h"

namespace service_test {
namespace {

namespace fs = std::filesystem;
using vexo_cloud::DeviceLimits;
using vexo_cloud::Options;
using vexo_cloud::Service;

constexpr uint32_t kDay = 86400;

std::string media_name(uint32_t start, int index) {
    char name[64];
    std::snprintf(name, sizeof name, "%u_%04d.media", start, index);
    return name;
}

class LimitsTest : public ServiceTest {
  protected:
    Options limited(const DeviceLimits &limits) {
        Options o = options();
        o.default_limits = limits;
        return o;
    }
    void stop(Service &service, uint32_t start_time, uint32_t end_time) {
        const auto answer = call_api(service, "cam1", kStopApi,
                                     Json{{"startTime", start_time}, {"endTime", end_time}}.dump());
        ASSERT_EQ(body_of(answer)["success"], true) << answer.body;
    }
    static vexo_cloud::Response post_alarm(Service &service, uint32_t time,
                                           const std::string &picture = "") {
        Json body{{"time", time}, {"withPicture", picture.empty() ? 0 : 1}};
        if (!picture.empty()) {
            body["picture"] = picture;
        }
        return service.handle(request("POST", "/v1/devices/cam1/alarms", "cam1", body.dump()));
    }
};

TEST_F(LimitsTest, QuotasRefuseUploadsBeforeTheBodyAndLetTheSameFileAgain) {
    DeviceLimits limits;
    limits.max_files = 2;
    limits.max_bytes = 10;
    auto service = start_cam1(limited(limits), true);
    ASSERT_EQ(put_media(*service, "cam1", media_name(kNoon, 0), "0123").status, 200);
    ASSERT_EQ(put_media(*service, "cam1", media_name(kNoon, 1), "456789").status, 200); // full
    // The identical re-upload of a stored file takes no room: 200 at a full quota.
    EXPECT_EQ(put_media(*service, "cam1", media_name(kNoon, 0), "0123").status, 200);
    EXPECT_EQ(put_media(*service, "cam1", media_name(kNoon, 0), "0124").status, 409);

    bool body_read = false;
    const auto head = request("PUT", "/v1/devices/cam1/media/" + media_name(kNoon, 2), "cam1");
    const auto answer = service->handle_streamed(head, 1, [&](const vexo_cloud::BodySink &sink) {
        body_read = true;
        return sink("x", 1);
    });
    EXPECT_EQ(answer.status, 507);
    EXPECT_FALSE(body_read);
    // A device's own limit wins over the default: room for a file, but one byte short.
    std::string error;
    vexo_cloud::LimitsChange change;
    change.max_files = 3;
    ASSERT_TRUE(service->set_limits("cam1", change, &error)) << error;
    const auto before = snapshot();
    const auto over = put_media(*service, "cam1", media_name(kNoon, 2), "x");
    EXPECT_EQ(over.status, 507);
    EXPECT_FALSE(body_of(over)["error"].get<std::string>().empty());
    EXPECT_EQ(snapshot(), before);
    change.max_bytes = 11;
    ASSERT_TRUE(service->set_limits("cam1", change, &error)) << error;
    EXPECT_EQ(put_media(*service, "cam1", media_name(kNoon, 2), "x").status, 200);
    EXPECT_EQ(service->usage("cam1").files, 3u);
    EXPECT_EQ(service->usage("cam1").bytes, 11u);
}

TEST_F(LimitsTest, AlarmsPastTheDailyQuotaAreRefusedUntilTheNextDay) {
    DeviceLimits limits;
    limits.max_alarms_per_day = 2;
    auto service = start_cam1(limited(limits));
    EXPECT_EQ(post_alarm(*service, kNoon).status, 200);
    EXPECT_EQ(post_alarm(*service, kNoon + 1, "aGVsbG8=").status, 200);
    const auto before = snapshot();
    EXPECT_EQ(post_alarm(*service, kNoon + 2, "aGVsbG8=").status, 507);
    EXPECT_EQ(post_alarm(*service, kNoon + 3).status, 507);
    EXPECT_EQ(snapshot(), before); // no row, no picture
    EXPECT_EQ(service->usage("cam1").alarms_today, 2u);

    clock_ = kNoon + kDay; // the next local day (UTC in the tests)
    EXPECT_EQ(service->usage("cam1").alarms_today, 0u);
    EXPECT_EQ(post_alarm(*service, kNoon + kDay).status, 200);
    EXPECT_EQ(service->alarms("cam1").size(), 3u);
}

TEST_F(LimitsTest, TheDeviceCapRefusesNewDevicesAndStartsThatWouldPassIt) {
    Options o = options();
    o.max_devices = 2;
    {
        auto service = start_cam1(o);
        add_device(*service, "cam2");
        std::string error;
        vexo_cloud::AdminRefusal why = vexo_cloud::AdminRefusal::kBadValue;
        EXPECT_FALSE(service->set_order("cam3", {}, &error, &why));
        EXPECT_EQ(why, vexo_cloud::AdminRefusal::kNoRoom);
    }
    // Tokens that would pass the cap stop the start and create none of their devices.
    o.tokens = {{"cam1", "t1"}, {"cam3", "t3"}, {"cam4", "t4"}};
    EXPECT_THROW(start_service(o), std::invalid_argument);
    o.tokens = {{"cam1", "t1"}};
    EXPECT_EQ(start_service(o)->devices(), (std::vector<std::string>{"cam1", "cam2"}));
}

TEST_F(LimitsTest, RetentionDeletesTheOldestClosedRecordingsAndKeepsOpenOnes) {
    DeviceLimits limits;
    limits.retention_days = 2;
    std::vector<std::string> lines;
    Options o = limited(limits);
    o.log = [&lines](const std::string &line) { lines.push_back(line); };
    // Closed recordings at +0, +200 and +1.5 days, an open one at +100; retention runs three
    // days after noon and takes the two closed ones of the first day.
    const uint32_t offsets[] = {0, 100, 200, 129600};
    std::vector<std::string> files;
    {
        auto service = start_cam1(o);
        for (const uint32_t offset : offsets) {
            clock_ = kNoon + offset;
            start(*service, "cam1", kNoon + offset, kNoKeyMd5);
            const std::string name = media_name(kNoon + offset, 0);
            ASSERT_EQ(put_media(*service, "cam1", name, "0123456789").status, 200);
            if (offset != 100) {
                stop(*service, kNoon + offset, kNoon + offset + 50);
            }
            files.push_back(recording(*service, "cam1", kNoon + offset).directory + "/" + name);
        }
        clock_ = kNoon + 3 * kDay;
        EXPECT_EQ(service->expire_recordings(), 2u);
        EXPECT_EQ(service->expire_recordings(), 0u); // nothing more the second time
    }
    for (size_t i = 0; i < files.size(); ++i) {
        EXPECT_EQ(fs::exists(files[i]), offsets[i] == 100 || offsets[i] == 129600) << files[i];
    }
    auto service = start_service(o); // a restart shows the same
    std::vector<uint32_t> left;
    for (const auto &r : service->recordings("cam1")) {
        left.push_back(r.start_time - kNoon);
    }
    EXPECT_EQ(left, (std::vector<uint32_t>{100, 129600}));
    EXPECT_EQ(service->usage("cam1").files, 2u);
    EXPECT_EQ(lines, std::vector<std::string>{"retention: cam1: deleted 2 recordings, 20 bytes"});
}

TEST_F(LimitsTest, RetentionRunsInTheBackgroundAndStopsWithTheService) {
    DeviceLimits limits;
    limits.retention_days = 1;
    Options o = limited(limits);
    o.retention_interval = 1;
    std::mutex mutex;
    std::condition_variable logged;
    std::vector<std::string> lines;
    o.log = [&](const std::string &line) {
        std::lock_guard<std::mutex> lock(mutex);
        lines.push_back(line);
        logged.notify_all();
    };
    auto service = start_cam1(o, true);
    stop(*service, kNoon, kNoon + 30);
    clock_ = kNoon + 2 * kDay;
    std::unique_lock<std::mutex> lock(mutex);
    ASSERT_TRUE(logged.wait_for(lock, std::chrono::seconds(30), [&] { return !lines.empty(); }));
    EXPECT_EQ(lines.front(), "retention: cam1: deleted 1 recordings, 0 bytes");
    lock.unlock();
    EXPECT_TRUE(service->recordings("cam1").empty());
    service.reset(); // joins the thread; a hang here fails the test by its timeout
}

} // namespace
} // namespace service_test
