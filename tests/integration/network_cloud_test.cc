// The camera against the network cloud: vexo-camsim on the host kit talking HTTP to a real
// vexo-cloud and taking commands from a real mosquitto broker, all on loopback. Each run
// checks what reached the cloud, and the failure runs check that the camera neither crashes
// nor hammers a cloud that refuses it.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

#include "e2e_support.h"
#include "network_cloud.h"
#include "scripted_cloud.h"
#include "tests/host/test_certificate.h"

namespace integration {
namespace {

namespace fs = std::filesystem;

const std::string kDevice = "it-cam";
const std::string kConfigPath = "/v1/devices/" + kDevice + "/storage/config";
/// 2026-01-01 10:05:00 UTC: far from the half hours at which all-time recordings split.
const std::string kMorning = "1767261900";
constexpr double kRunTimeoutS = 300;

/// The lines of a log, in the order they were written.
std::vector<std::string> lines_of(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

/// The index of the first line from `from` on that contains every one of `parts`;
/// lines.size() when there is none.
size_t find_line(const std::vector<std::string> &lines, size_t from,
                 std::initializer_list<std::string> parts) {
    for (size_t i = from; i < lines.size(); ++i) {
        if (std::all_of(parts.begin(), parts.end(), [&](const std::string &part) {
                return lines[i].find(part) != std::string::npos;
            })) {
            return i;
        }
    }
    return lines.size();
}

std::string config_answers(int status) {
    return "GET " + kConfigPath + " -> " + std::to_string(status);
}

/// vexo-camsim on the clip against a cloud at url and no broker, its data in dir/camera.
std::vector<std::string> camera_at(const std::string &url, const std::string &dir,
                                   const std::string &clip, const std::vector<std::string> &extra) {
    std::vector<std::string> argv = {kCamsim,         "--quiet",  "--input", clip,      "--data",
                                     dir + "/camera", "--device", kDevice,   "--cloud", url};
    argv.insert(argv.end(), extra.begin(), extra.end());
    return argv;
}

class NetworkCloudTest : public ::testing::Test {
  protected:
    e2e::TempDir tmp_;
};

/// A broker, the service publishing through it, and a clip for the camera.
class CameraOnNetworkTest : public NetworkCloudTest {
  protected:
    void SetUp() override {
        broker_ = std::make_unique<Broker>(tmp_.path());
        ASSERT_TRUE(broker_->start()) << broker_->output();
        cloud_ = std::make_unique<Cloud>(tmp_.path(), broker_->url());
        ASSERT_TRUE(cloud_->up()) << cloud_->log();
        clip_ = make_clip(tmp_.path());
    }
    /// vexo-camsim on the clip against this cloud and broker, keeping its data in camera/.
    std::vector<std::string> camera_args(const std::vector<std::string> &extra) const {
        return camsim_args(*cloud_, broker_->url(), tmp_.path() + "/camera", clip_.path, kDevice,
                           extra);
    }

    std::unique_ptr<Broker> broker_;
    std::unique_ptr<Cloud> cloud_;
    Clip clip_;
};

TEST_F(CameraOnNetworkTest, EventModeOverHttpGetsItsKeyFromTheCloudAndExports) {
    Cloud &cloud = *cloud_;

    const e2e::Result r = e2e::run(
        camera_args({"--speed", "4", "--duration", "40", "--event-duration", "8", "--slice", "4",
                     "--silence", "3", "--motion", "6+6", "--motion", "26"}));
    ASSERT_EQ(r.status, 0) << r.out;
    EXPECT_NE(r.out.find("mqtt connected"), std::string::npos) << r.out;

    // The service logs a request once its answer has gone out, so the camera can be done
    // before the last line is written: stopping the service first makes its log complete.
    EXPECT_EQ(cloud.stop(), 0);
    const auto recordings = e2e::read_cloud(cloud.data(), kDevice);
    ASSERT_EQ(recordings.size(), 2u) << r.out << cloud.log();
    // The camera had no key: the cloud issued one at the first start, the camera started
    // again with it, and the second recording announced the same key's md5.
    EXPECT_EQ(occurrences(cloud.log(), "notify.upload.start -> 200"), 3u) << cloud.log();
    EXPECT_EQ(recordings[0].info.announced_md5, recordings[0].info.key_md5);
    EXPECT_EQ(recordings[1].info.announced_md5, recordings[0].info.key_md5);
    EXPECT_EQ(recordings[1].info.key, recordings[0].info.key);
    for (const e2e::RecordingContent &rec : recordings) {
        EXPECT_GT(e2e::count(rec).audio, 0u);
        e2e::check_recording(kMediaTool, kDevice, rec, cloud.data(), clip_.keys, 20, tmp_.path());
    }
}

TEST_F(CameraOnNetworkTest, AbortOverMqttStopsRecordingUntilTheOrderIsSetAgain) {
    Cloud &cloud = *cloud_;

    // All-time recording from 10:05:00; the order is aborted at 8 s and set again at 18 s.
    const e2e::Result r = e2e::run(
        camera_args({"--mode", "alltime", "--start", kMorning, "--speed", "2", "--duration", "28",
                     "--slice", "4", "--abort", "8", "--order", "18:alltime"}));
    ASSERT_EQ(r.status, 0) << r.out;
    const size_t stopped = r.out.find("store mode alltime -> no order");
    const size_t resumed = r.out.find("store mode no order -> alltime");
    ASSERT_NE(stopped, std::string::npos) << r.out;
    ASSERT_NE(resumed, std::string::npos) << r.out;
    EXPECT_LT(stopped, resumed);
    // The abort itself needs no fetch; setting the order again makes the camera ask.
    EXPECT_GE(occurrences(cloud.log(), config_answers(200)), 2u) << cloud.log();

    // The quiet window runs from the publication of the abort to that of the renewed order.
    // The service writes "publishing to" before a message leaves and logs a request when it
    // has answered it, so whatever the camera does in answer to the new order shows after the
    // second line, however the service's threads happen to be scheduled.
    const std::vector<std::string> lines = lines_of(cloud.log());
    const std::string command = "publishing to vexo/" + kDevice + "/cmd ";
    const size_t aborted = find_line(lines, 0, {command, R"("action":"abort")"});
    const size_t renewed = find_line(lines, aborted, {command, R"("action":"store")"});
    ASSERT_LT(renewed, lines.size()) << cloud.log();
    // In it the camera announces nothing and asks for nothing. A pass of its worker that was
    // under way when the abort arrived may still upload the slice it was cutting; nothing
    // after that.
    const std::string upload = "PUT /v1/devices/" + kDevice + "/media/";
    size_t requests = 0;
    size_t uploads = 0;
    for (size_t i = aborted + 1; i < renewed; ++i) {
        requests += lines[i].find("/v1/devices/" + kDevice) != std::string::npos ||
                    lines[i].find("/v1/api/") != std::string::npos;
        uploads += lines[i].find(upload) != std::string::npos;
    }
    EXPECT_LE(uploads, 1u) << cloud.log();
    EXPECT_EQ(requests, uploads) << cloud.log();
    EXPECT_LT(find_line(lines, renewed, {upload}), lines.size()) << cloud.log();
    for (const e2e::RecordingContent &rec : e2e::read_cloud(cloud.data(), kDevice)) {
        EXPECT_TRUE(rec.faults.empty()) << rec.faults.front();
    }
    const e2e::Result verify =
        e2e::run({kMediaTool, "verify", "--data", cloud.data(), "--device", kDevice});
    EXPECT_EQ(verify.status, 0) << verify.out;
}

TEST_F(CameraOnNetworkTest, ExpiredOrderKeepsTheCameraQuietUntilItIsRenewed) {
    Cloud &cloud = *cloud_;
    const e2e::Result order =
        cloud.admin({"order", kDevice, "--store-mode", "event", "--event-duration", "6", "--slice",
                     "4", "--silence", "2", "--expired", "yes"});
    ASSERT_EQ(order.status, 0) << order.out;

    Process camsim(camera_args({"--no-order", "--speed", "2", "--duration", "44", "--motion", "4",
                                "--resume", "10", "--motion", "34+4"}),
                   tmp_.path() + "/camsim.log");
    // The expired order puts the camera in "no order" at once; the motion at 4 s records
    // nothing, and in the six camera seconds up to the resume at 10 s (which changes nothing
    // but marks the time) the camera does not ask again and again: its back-off after a
    // failed fetch starts at half a second.
    ASSERT_TRUE(camsim.wait_for("store mode not configured -> no order", 60)) << camsim.output();
    ASSERT_TRUE(cloud.wait_for(config_answers(410), 30)) << cloud.log();
    ASSERT_TRUE(camsim.wait_for("mqtt connected", 30)) << camsim.output();
    ASSERT_TRUE(camsim.wait_for("10.0s resume", 60)) << camsim.output();
    EXPECT_EQ(occurrences(cloud.log(), config_answers(410)), 1u) << cloud.log();
    EXPECT_EQ(occurrences(cloud.log(), "/v1/api/"), 0u) << cloud.log();

    const e2e::Result renew = cloud.admin({"order", kDevice, "--expired", "no"});
    ASSERT_EQ(renew.status, 0) << renew.out;
    EXPECT_TRUE(camsim.wait_for("-> event", 60)) << camsim.output();
    ASSERT_EQ(camsim.wait(kRunTimeoutS), 0) << camsim.output();
    EXPECT_EQ(occurrences(cloud.log(), config_answers(410)), 1u) << cloud.log();

    const auto recordings = e2e::read_cloud(cloud.data(), kDevice);
    ASSERT_EQ(recordings.size(), 1u) << camsim.output();
    e2e::check_recording(kMediaTool, kDevice, recordings[0], cloud.data(), clip_.keys, 20,
                         tmp_.path());
}

TEST_F(NetworkCloudTest, FailingServiceIsNotHammered) {
    const Clip clip = make_clip(tmp_.path());
    ScriptedCloud failing([](const std::string &, size_t) {
        return ScriptedCloud::Answer{503, R"({"error":"maintenance"})"};
    });
    const e2e::Result r = e2e::run(camera_at(failing.url(), tmp_.path(), clip.path,
                                             {"--no-order", "--duration", "10", "--motion", "3"}));
    // The module takes a failing service as "no valid order": it runs on, records nothing,
    // and asks again only after an hour instead of retrying at once.
    EXPECT_EQ(r.status, 0) << r.out;
    EXPECT_NE(r.out.find("store mode not configured -> no order"), std::string::npos) << r.out;
    EXPECT_EQ(failing.times(kConfigPath).size(), 1u);
    EXPECT_EQ(failing.times("/v1/api/vexo.device.ipc.media.storage.notify.upload.start").size(),
              0u);
    std::ifstream seq(tmp_.path() + "/camera/camera/seq-log.jsonl");
    std::stringstream text;
    text << seq.rdbuf();
    EXPECT_NE(text.str().find("-2006"), std::string::npos) << text.str();
}

// An unusable configuration answer is refused by the kit's config call and the module's
// start-up retries back off from half a second on the kit's clock; each part is pinned where it
// lives (the kit's calls, the upload thread), so no camera run repeats them here.
TEST_F(NetworkCloudTest, HttpsWithTheServicesOwnCertificate) {
    std::string error;
    ASSERT_TRUE(vexo_test::write_test_certificate(tmp_.path(), &error)) << error;
    const std::string certificate = tmp_.path() + "/server.crt";
    Cloud cloud(tmp_.path(), "",
                {"--tls-cert", certificate, "--tls-key", tmp_.path() + "/server.key"});
    ASSERT_TRUE(cloud.up()) << cloud.log();
    ASSERT_EQ(cloud.url().rfind("https://", 0), 0u) << cloud.url();
    const Clip clip = make_clip(tmp_.path());
    const std::vector<std::string> argv =
        camera_at(cloud.url(), tmp_.path(), clip.path,
                  {"--speed", "2", "--duration", "14", "--event-duration", "6", "--slice", "4",
                   "--motion", "2"});

    // The camera checks the service's certificate: without its CA it does not connect.
    const e2e::Result untrusted = e2e::run(argv);
    EXPECT_EQ(untrusted.status, 2) << untrusted.out;
    EXPECT_FALSE(fs::exists(cloud.data() + "/" + kDevice));

    std::vector<std::string> trusted = argv;
    trusted.insert(trusted.end(), {"--cloud-ca", certificate});
    const e2e::Result r = e2e::run(trusted);
    ASSERT_EQ(r.status, 0) << r.out;
    const auto recordings = e2e::read_cloud(cloud.data(), kDevice);
    ASSERT_EQ(recordings.size(), 1u) << r.out << cloud.log();
    e2e::check_recording(kMediaTool, kDevice, recordings[0], cloud.data(), clip.keys, 20,
                         tmp_.path());
}

TEST_F(CameraOnNetworkTest, RemoteTriggerAcrossABrokerRestartStoresASnapshotAndARecording) {
    Broker &broker = *broker_;
    Cloud &cloud = *cloud_;
    Process camsim(camera_args( // An order that changes nothing, so that no motion is made up.
                       {"--duration", "50", "--event-duration", "6", "--slice", "4", "--silence",
                        "2", "--order", "49:event"}),
                   tmp_.path() + "/camsim.log");
    ASSERT_TRUE(camsim.wait_for("mqtt connected", 30)) << camsim.output();

    broker.stop();
    ASSERT_TRUE(camsim.wait_for("mqtt disconnected", 30)) << camsim.output();
    // A trigger while the broker is away waits in the service...
    const e2e::Result trigger = cloud.admin({"trigger", kDevice, "pic_v", "--duration", "6"});
    ASSERT_EQ(trigger.status, 0) << trigger.out;
    EXPECT_NE(cloud.log().find("queued for vexo/" + kDevice + "/cmd"), std::string::npos)
        << cloud.log();
    // ...and reaches the camera once both clients are back by themselves.
    ASSERT_TRUE(broker.start()) << broker.output();
    ASSERT_TRUE(camsim.wait_for("mqtt connected", 40, 2)) << camsim.output();
    EXPECT_TRUE(cloud.wait_for("mqtt: connected to", 40, 2)) << cloud.log();
    ASSERT_EQ(camsim.wait(kRunTimeoutS), 0) << camsim.output();
    // The summary counts the trigger sent from outside the simulator's own schedule.
    EXPECT_NE(camsim.output().find("1 remote triggers received (0 scheduled)"), std::string::npos)
        << camsim.output();
    // The snapshot and the recording the trigger asked for after the restart, nothing else.
    ASSERT_EQ(cloud.stop(), 0);
    vexo_cloud::Options options;
    options.data_dir = cloud.data();
    const auto alarms = vexo_cloud::Service(options).alarms(kDevice);
    ASSERT_EQ(alarms.size(), 1u) << camsim.output();
    ASSERT_TRUE(alarms[0].with_picture);
    const e2e::Result probe =
        e2e::run({"ffprobe", "-v", "error", "-show_entries", "stream=codec_name,width,height",
                  "-of", "csv=p=0", alarms[0].picture_path});
    EXPECT_EQ(probe.out, "mjpeg,320,240\n");
    const auto recordings = e2e::read_cloud(cloud.data(), kDevice);
    ASSERT_EQ(recordings.size(), 1u) << camsim.output() << cloud.log();
    e2e::check_recording(kMediaTool, kDevice, recordings[0], cloud.data(), clip_.keys, 20,
                         tmp_.path());
}

} // namespace
} // namespace integration
