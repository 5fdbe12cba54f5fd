/// The browser view in a real browser: a camera simulator run fills a cloud directory, a
/// vexo-cloud serves it with an admin token on a free loopback port, and Debian's chromium,
/// driven by browser_steps.mjs through puppeteer-core, logs in, reads the device list and
/// the day, plays a recording, seeks, downloads it, and is refused without the session.
/// Screenshots go to artefacts/<case>/ in the build tree.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "e2e_support.h"
#include "processes.h"

namespace {

namespace fs = std::filesystem;

const std::string kCamsim = VEXO_UI_CAMSIM;
const std::string kCloud = VEXO_UI_CLOUD;
const std::string kNode = VEXO_UI_NODE;
const std::string kChromium = VEXO_UI_CHROMIUM;
const std::string kSteps = VEXO_UI_STEPS;
const std::string kPackages = VEXO_UI_PACKAGES;
const std::string kArtefacts = VEXO_UI_ARTEFACTS;
const std::string kDevice = "ui-cam";
const std::string kToken = "ui-admin-token-1";

class BrowserView : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(fs::exists(kPackages + "/node_modules/puppeteer-core/package.json"))
            << "puppeteer-core is missing: run `npm ci` in " << kPackages
            << " (scripts/install-deps.sh does)";
        const std::string clip =
            e2e::make_clip(tmp_.path(), "clip.mp4", 320, 240, 20, 40, 6, "aac", 300);
        data_ = tmp_.path() + "/data";
        // One motion event of 12 s in files of 4 s, and a picture asked for by the cloud.
        const e2e::Result camsim = e2e::run({kCamsim,
                                             "--quiet",
                                             "--input",
                                             clip,
                                             "--data",
                                             data_,
                                             "--device",
                                             kDevice,
                                             "--speed",
                                             "4",
                                             "--duration",
                                             "40",
                                             "--event-duration",
                                             "12",
                                             "--slice",
                                             "4",
                                             "--motion",
                                             "4",
                                             "--trigger",
                                             "24:pic"});
        ASSERT_EQ(camsim.status, 0) << camsim.out;
        recordings_ = e2e::read_cloud(data_ + "/cloud", kDevice);
        ASSERT_EQ(recordings_.size(), 1u) << camsim.out;
        ASSERT_GE(recordings_[0].info.files.size(), 2u) << "the seek needs a second media file";
        {
            vexo_cloud::Options options;
            options.data_dir = data_ + "/cloud";
            const vexo_cloud::Service service(options);
            alarms_ = service.alarms(kDevice).size();
        }
        ASSERT_EQ(alarms_, 1u);

        const uint16_t port = e2e::free_port();
        url_ = "http://127.0.0.1:" + std::to_string(port);
        cloud_ = std::make_unique<e2e::Process>(
            std::vector<std::string>{kCloud, "serve", "--data", data_ + "/cloud", "--listen",
                                     "127.0.0.1:" + std::to_string(port), "--admin-token", kToken},
            tmp_.path() + "/cloud.log");
        ASSERT_TRUE(cloud_->wait_for("listening on", 30)) << cloud_->output();

        const auto *test = ::testing::UnitTest::GetInstance()->current_test_info();
        out_ = kArtefacts + "/" + test->name();
        fs::remove_all(out_);
        fs::create_directories(out_);
    }

    /// Runs the browser steps ("view" or "playback"); false with their output on failure.
    bool run_steps(const std::string &steps) {
        const e2e::Result r =
            e2e::run({kNode, kSteps},
                     {"VEXO_UI_URL=" + url_, "VEXO_UI_TOKEN=" + kToken, "VEXO_UI_DEVICE=" + kDevice,
                      "VEXO_UI_RECORDINGS=" + std::to_string(recordings_.size()),
                      "VEXO_UI_ALARMS=" + std::to_string(alarms_), "VEXO_UI_OUT=" + out_,
                      "VEXO_UI_STEPS=" + steps, "VEXO_UI_CHROMIUM=" + kChromium,
                      "VEXO_UI_PACKAGES=" + kPackages});
        std::ofstream(out_ + "/steps.log") << r.out;
        EXPECT_EQ(r.status, 0) << r.out << "\nservice log:\n" << cloud_->output();
        return r.status == 0;
    }

    e2e::TempDir tmp_;
    std::string data_;
    std::vector<e2e::RecordingContent> recordings_;
    size_t alarms_ = 0;
    std::string url_;
    std::string out_;
    std::unique_ptr<e2e::Process> cloud_;
};

TEST_F(BrowserView, LogsInListsTheCameraDrawsItsDayAndRefusesWithoutTheSession) {
    ASSERT_TRUE(run_steps("view"));
    for (const char *shot : {"device-list.png", "day-view.png"}) {
        EXPECT_GT(fs::exists(out_ + "/" + shot) ? fs::file_size(out_ + "/" + shot) : 0, 0u) << shot;
    }
}

TEST_F(BrowserView, PlaysARecordingSeeksIntoItsSecondFileAndDownloadsIt) {
    ASSERT_TRUE(run_steps("playback"));
    EXPECT_TRUE(fs::exists(out_ + "/player.png"));
    std::string errors;
    const int frames = e2e::decoded_video_frames(out_ + "/download.mp4", &errors);
    EXPECT_EQ(frames, static_cast<int>(e2e::count(recordings_[0]).video)) << errors;
}

} // namespace
