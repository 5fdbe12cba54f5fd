/// The fixture of the cloud service tests: a fresh data directory per test, a clock the test
/// sets, a record of what the service publishes, and helpers that speak the device protocol.
#ifndef VEXO_TESTS_SERVICE_FIXTURE_H
#define VEXO_TESTS_SERVICE_FIXTURE_H

#include <atomic>
#include <cstdint>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "service/core/cloud_service.h"
#include "tests/support/temp_dir.h"

namespace service_test {

using Json = nlohmann::json;

constexpr char kStartApi[] = "vexo.device.ipc.media.storage.notify.upload.start";
constexpr char kStopApi[] = "vexo.device.ipc.media.storage.notify.upload.stop";
constexpr char kReportApi[] = "vexo.device.ipc.media.storage.report.event";
/// 2024-03-10 12:00:00 UTC.
constexpr uint32_t kNoon = 1710072000;
/// What a device announces when its stored key failed its check.
constexpr char kNoKeyMd5[] = "0000";

class ServiceTest : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

    /// Options on this test's data directory, clock and publish record.
    vexo_cloud::Options options();
    /// A service with options(), or the given ones.
    std::unique_ptr<vexo_cloud::Service> start_service();
    std::unique_ptr<vexo_cloud::Service> start_service(vexo_cloud::Options options);
    /// A service with the given options that knows cam1 with the default order, and when
    /// `announced` a recording of it started at kNoon.
    std::unique_ptr<vexo_cloud::Service> start_cam1(vexo_cloud::Options options,
                                                    bool announced = false);
    std::unique_ptr<vexo_cloud::Service> start_cam1() { return start_cam1(options()); }
    /// A device with the default order (created through an admin call).
    void add_device(vexo_cloud::Service &service, const std::string &device);

    // ---- requests as a device makes them ----
    static vexo_cloud::Request request(const std::string &method, const std::string &path,
                                       const std::string &device, const std::string &body = "");
    static vexo_cloud::Response get_config(vexo_cloud::Service &service, const std::string &device);
    static vexo_cloud::Response call_api(vexo_cloud::Service &service, const std::string &device,
                                         const std::string &api, const std::string &body);
    /// A start notification; its answer's "result" object (null when refused).
    static Json start(vexo_cloud::Service &service, const std::string &device, uint32_t start_time,
                      const std::string &key_md5);
    static vexo_cloud::Response put_media(vexo_cloud::Service &service, const std::string &device,
                                          const std::string &name, const std::string &bytes);
    static std::string start_body(uint32_t start_time, const std::string &key_md5);
    static Json body_of(const vexo_cloud::Response &response);

    /// One recording of a device, failing the test when it is not there.
    static vexo_cloud::Recording recording(vexo_cloud::Service &service, const std::string &device,
                                           uint32_t start_time);

    /// Every file and directory below the data directory with the files' contents, the
    /// database as its rows.
    std::map<std::string, std::string> snapshot() const;

    std::vector<std::pair<std::string, std::string>> published() const;

    std::string dir_;
    std::atomic<uint32_t> clock_{kNoon};

  private:
    std::optional<vexo_test::TempDir> tmp_;
    mutable std::mutex published_mutex_;
    std::vector<std::pair<std::string, std::string>> published_;
    std::string saved_tz_;
    bool had_tz_ = false;
};

} // namespace service_test

#endif
