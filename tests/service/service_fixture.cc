/// The cloud service test fixture.
#include "service_fixture.h"

#include "data_snapshot.h"

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace service_test {

namespace fs = std::filesystem;

void ServiceTest::SetUp() {
    const char *tz = std::getenv("TZ");
    had_tz_ = tz != nullptr;
    saved_tz_ = had_tz_ ? tz : "";
    // The daily allowance follows the local date: pin it to UTC unless a test says otherwise.
    setenv("TZ", "UTC0", 1);
    tzset();
    tmp_.emplace("vexo-service-test");
    dir_ = tmp_->path();
}

void ServiceTest::TearDown() {
    tmp_.reset();
    if (had_tz_) {
        setenv("TZ", saved_tz_.c_str(), 1);
    } else {
        unsetenv("TZ");
    }
    tzset();
}

vexo_cloud::Options ServiceTest::options() {
    vexo_cloud::Options options;
    options.data_dir = dir_ + "/data";
    options.clock = [this] { return clock_.load(); };
    options.publish = [this](const std::string &device, const std::string &payload) {
        std::lock_guard<std::mutex> lock(published_mutex_);
        published_.emplace_back(device, payload);
    };
    return options;
}

std::unique_ptr<vexo_cloud::Service> ServiceTest::start_service() {
    return start_service(options());
}

std::unique_ptr<vexo_cloud::Service> ServiceTest::start_service(vexo_cloud::Options options) {
    return std::make_unique<vexo_cloud::Service>(std::move(options));
}

std::unique_ptr<vexo_cloud::Service> ServiceTest::start_cam1(vexo_cloud::Options options,
                                                             bool announced) {
    auto service = start_service(std::move(options));
    add_device(*service, "cam1");
    if (announced) {
        start(*service, "cam1", kNoon, kNoKeyMd5);
    }
    return service;
}

void ServiceTest::add_device(vexo_cloud::Service &service, const std::string &device) {
    std::string error;
    ASSERT_TRUE(service.set_order(device, vexo_cloud::OrderChange{}, &error)) << error;
}

vexo_cloud::Request ServiceTest::request(const std::string &method, const std::string &path,
                                         const std::string &device, const std::string &body) {
    vexo_cloud::Request request;
    request.method = method;
    const size_t question = path.find('?');
    request.path = path.substr(0, question);
    if (question != std::string::npos) {
        request.query = path.substr(question + 1);
    }
    request.headers["x-vexo-device"] = device;
    request.body = body;
    return request;
}

vexo_cloud::Response ServiceTest::get_config(vexo_cloud::Service &service,
                                             const std::string &device) {
    return service.handle(request("GET", "/v1/devices/" + device + "/storage/config", device));
}

vexo_cloud::Response ServiceTest::call_api(vexo_cloud::Service &service, const std::string &device,
                                           const std::string &api, const std::string &body) {
    return service.handle(request("POST", "/v1/api/" + api + "?v=1.0", device, body));
}

std::string ServiceTest::start_body(uint32_t start_time, const std::string &key_md5) {
    const std::string payload = R"({"v":1,"vType":"2","vFps":15,"vWide":640,"vHigh":360})";
    return Json{
        {"startTime", start_time}, {"payloadInfo", payload}, {"mtu", 10}, {"enKeyMd5", key_md5}}
        .dump();
}

Json ServiceTest::start(vexo_cloud::Service &service, const std::string &device,
                        uint32_t start_time, const std::string &key_md5) {
    const vexo_cloud::Response response =
        call_api(service, device, kStartApi, start_body(start_time, key_md5));
    EXPECT_EQ(response.status, 200) << response.body;
    const Json body = body_of(response);
    const auto success = body.find("success"); // end() also when body is no object
    if (success == body.end() || *success != true) {
        ADD_FAILURE() << "start refused: " << response.body;
        return nullptr;
    }
    return body["result"];
}

vexo_cloud::Response ServiceTest::put_media(vexo_cloud::Service &service, const std::string &device,
                                            const std::string &name, const std::string &bytes) {
    return service.handle(
        request("PUT", "/v1/devices/" + device + "/media/" + name, device, bytes));
}

Json ServiceTest::body_of(const vexo_cloud::Response &response) {
    return Json::parse(response.body, nullptr, false);
}

vexo_cloud::Recording ServiceTest::recording(vexo_cloud::Service &service,
                                             const std::string &device, uint32_t start_time) {
    for (const vexo_cloud::Recording &item : service.recordings(device)) {
        if (item.start_time == start_time) {
            return item;
        }
    }
    ADD_FAILURE() << "no recording " << start_time << " of " << device;
    return vexo_cloud::Recording{};
}

std::map<std::string, std::string> ServiceTest::snapshot() const {
    return test_support::data_snapshot(dir_);
}

std::vector<std::pair<std::string, std::string>> ServiceTest::published() const {
    std::lock_guard<std::mutex> lock(published_mutex_);
    return published_;
}

} // namespace service_test
