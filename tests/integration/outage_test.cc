// The camera through a cloud outage: vexo-cloud is killed in the middle of a recording and
// started again on the same port and data; the camera keeps what it could not deliver in its
// spool and sends it once the service is back, also after being killed itself. Camera time is
// read from the simulator's progress lines (one every 10 kit seconds).
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <filesystem>
#include <sstream>

#include "e2e_support.h"
#include "network_cloud.h"

namespace integration {
namespace {

namespace fs = std::filesystem;

const std::string kDevice = "out-cam";
/// 2026-01-01 10:05:00 UTC: far from the half hours at which all-time recordings split.
const std::string kMorning = "1767261900";
const std::string kLater = "1767265500";
constexpr double kWaitS = 120;

class OutageTest : public ::testing::Test {
  protected:
    void SetUp() override {
        broker_ = std::make_unique<Broker>(tmp_.path());
        ASSERT_TRUE(broker_->start()) << broker_->output();
        cloud_ = std::make_unique<Cloud>(tmp_.path(), broker_->url());
        ASSERT_TRUE(cloud_->up()) << cloud_->log();
        clip_ = make_clip(tmp_.path());
    }
    /// vexo-camsim with its progress lines and the kit's debug lines, in the background.
    std::unique_ptr<Process> camera(const std::vector<std::string> &extra, const std::string &log) {
        std::vector<std::string> argv =
            camsim_args(*cloud_, broker_->url(), camera_dir(), clip_.path, kDevice, extra);
        argv.erase(std::find(argv.begin(), argv.end(), "--quiet"));
        argv.push_back("-v");
        return std::make_unique<Process>(argv, tmp_.path() + "/" + log);
    }
    std::string camera_dir() const { return tmp_.path() + "/camera"; }
    /// Kills the service once the camera printed its progress line `down` times, starts it
    /// again at the `up`-th one (a line every 10 camera seconds), and waits for the camera to
    /// end with nothing left in its spool.
    void outage(Process &camsim, const std::string &duration, size_t down, size_t up) {
        const std::string progress = "s/" + duration + "s] ";
        ASSERT_TRUE(camsim.wait_for(progress, kWaitS, down)) << camsim.output();
        cloud_->kill();
        ASSERT_TRUE(camsim.wait_for("spool: cloud unreachable", kWaitS)) << camsim.output();
        ASSERT_TRUE(camsim.wait_for(progress, kWaitS, up)) << camsim.output();
        ASSERT_TRUE(cloud_->restart()) << cloud_->log();
        ASSERT_EQ(camsim.wait(kWaitS * 2), 0) << camsim.output();
        EXPECT_NE(camsim.output().find("\nspool 0 items, 0 B"), std::string::npos)
            << camsim.output();
    }

    e2e::TempDir tmp_;
    std::unique_ptr<Broker> broker_;
    std::unique_ptr<Cloud> cloud_;
    Clip clip_;
};

TEST_F(OutageTest, AllTimeRecordingLosesNoFrameAcrossTheOutage) {
    auto camsim = camera({"--mode", "alltime", "--start", kMorning, "--speed", "4", "--duration",
                          "70", "--slice", "4"},
                         "camsim.log");
    outage(*camsim, "70", 3, 6);
    EXPECT_NE(camsim->output().find(" sent, 0 dropped\ncloud "), std::string::npos)
        << camsim->output();
    const auto recordings = e2e::read_cloud(cloud_->data(), kDevice);
    ASSERT_EQ(recordings.size(), 1u) << camsim->output();
    EXPECT_GE(e2e::count(recordings[0]).video, 60u * 20) << "a minute of video";
    e2e::check_recording(kMediaTool, kDevice, recordings[0], cloud_->data(), clip_.keys, 20,
                         tmp_.path(), false);
}

TEST_F(OutageTest, ASpoolTooSmallForTwoMinutesDropsTheOldestRecordingAndReportsTheGap) {
    // Three motion events: one before the outage, two during two minutes without the
    // service. An 800 KiB spool holds one of those recordings (about 0.5 MB each), not both.
    auto camsim = camera({"--speed", "4", "--duration", "170", "--slice", "4", "--event-duration",
                          "10", "--silence", "2", "--motion", "3", "--motion", "40", "--motion",
                          "90", "--spool-bytes", "800K"},
                         "camsim.log");
    outage(*camsim, "170", 3, 15);

    // The recordings before and after the dropped one arrived whole.
    const auto recordings = e2e::read_cloud(cloud_->data(), kDevice);
    ASSERT_EQ(recordings.size(), 2u) << camsim->output();
    for (const e2e::RecordingContent &rec : recordings) {
        EXPECT_NE(rec.info.end_time, 0u) << rec.info.start_time;
        e2e::check_recording(kMediaTool, kDevice, rec, cloud_->data(), clip_.keys, 20, tmp_.path());
    }
    // The one in between is a gap with its times and the bytes it lost.
    const std::vector<vexo_cloud::Gap> gaps = vexo_cloud::read_gaps(cloud_->data(), kDevice);
    ASSERT_EQ(gaps.size(), 1u) << camsim->output();
    const vexo_cloud::Gap &gap = gaps[0];
    EXPECT_EQ(gap.reason, "spool full");
    EXPECT_GT(gap.from, recordings[0].info.end_time);
    EXPECT_LT(gap.to, recordings[1].info.start_time);
    EXPECT_GE(gap.to - gap.from, 10u) << "the event lasted 10 s";
    EXPECT_GT(gap.bytes, 100u * 1000) << "a 10 s event at about 36 kB/s";
    EXPECT_LT(gap.bytes, 1u << 20);
}

/// The media files the camera's log says it kept in its spool.
std::vector<std::string> kept_files(const std::string &log) {
    std::vector<std::string> names;
    const std::string marker = "keeping PUT /v1/devices/" + kDevice + "/media/";
    std::istringstream in(log);
    for (std::string line; std::getline(in, line);) {
        const size_t at = line.find(marker);
        if (at != std::string::npos) {
            const size_t from = at + marker.size();
            names.push_back(line.substr(from, line.find(' ', from) - from));
        }
    }
    return names;
}

TEST_F(OutageTest, ACameraKilledWithAFullSpoolSendsItAfterItsRestart) {
    auto first = camera({"--mode", "alltime", "--start", kMorning, "--speed", "4", "--duration",
                         "600", "--slice", "4"},
                        "camsim-1.log");
    ASSERT_TRUE(first->wait_for("s/600s] ", kWaitS, 2)) << first->output();
    cloud_->kill();
    ASSERT_TRUE(first->wait_for("spool: keeping PUT", kWaitS, 3)) << first->output();
    first->signal(SIGKILL);
    first->wait(kWaitS);
    const std::vector<std::string> kept = kept_files(first->output());
    ASSERT_GE(kept.size(), 3u);
    const std::string spool_dir = camera_dir() + "/camera/spool";
    EXPECT_GE(std::distance(fs::directory_iterator(spool_dir), fs::directory_iterator()), 3);

    ASSERT_TRUE(cloud_->restart()) << cloud_->log();
    // An hour later, so that its own recording sorts after the killed run's. The order the
    // first run set still holds, so this run sets none: an order change published now would
    // reach the camera's kept session at connect, while its worker makes its own first
    // configuration fetch, and the module runs the two fetches on two threads without a lock.
    auto second = camera({"--no-order", "--start", kLater, "--speed", "4", "--duration", "12"},
                         "camsim-2.log");
    ASSERT_EQ(second->wait(kWaitS * 2), 0) << second->output();
    EXPECT_TRUE(fs::is_empty(spool_dir));

    const auto recordings = e2e::read_cloud(cloud_->data(), kDevice);
    ASSERT_EQ(recordings.size(), 2u) << second->output();
    std::set<std::string> stored;
    for (const vexo_cloud::MediaFileInfo &f : recordings[0].info.files) {
        stored.insert(f.name);
    }
    for (const std::string &name : kept) {
        EXPECT_EQ(stored.count(name), 1u) << name << " was kept but never delivered";
    }
    EXPECT_EQ(recordings[1].info.announced_md5, recordings[0].info.key_md5) << "key kept";
    // The killed run's recording stays open, and no frame is missing up to its last file.
    e2e::check_recording(kMediaTool, kDevice, recordings[0], cloud_->data(), clip_.keys, 20,
                         tmp_.path(), false);
}

} // namespace
} // namespace integration
