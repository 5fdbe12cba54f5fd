// Starting and stopping the broker and the cloud service of the integration tests.
#include "network_cloud.h"

#include <signal.h>

#include <filesystem>
#include <fstream>

#include "tests/host/test_certificate.h"

namespace integration {

const std::string kCloudTool = VEXO_IT_CLOUD;
const std::string kCamsim = VEXO_IT_CAMSIM;
const std::string kMediaTool = VEXO_IT_MEDIA;

namespace {

const std::string kMosquitto = VEXO_IT_MOSQUITTO;
const std::string kSecureBrokerScript = VEXO_IT_SECURE_BROKER_SCRIPT;
constexpr double kStartTimeoutS = 30;
constexpr char kListening[] = "vexo-cloud: listening on ";

} // namespace

Broker::Broker(const std::string &dir) : dir_(dir), port_(free_port()) {}

bool Broker::start() {
    const std::string config = dir_ + "/mosquitto.conf";
    std::ofstream(config) << "listener " << port_ << " 127.0.0.1\n"
                          << "allow_anonymous true\n"
                          // Sessions survive a restart, as on a production broker: a camera's
                          // subscription stays, and commands for it wait while it is away.
                          << "persistence true\n"
                          // Run as root (CI), it would drop to the mosquitto user, which may
                          // not write to the test's private directory.
                          << "user root\n"
                          << "persistence_location " << dir_ << "/\n"
                          << "log_dest stderr\n"
                          << "log_type error\nlog_type warning\nlog_type notice\n"
                          << "log_type information\n";
    ++starts_;
    process_ = std::make_unique<Process>(std::vector<std::string>{kMosquitto, "-c", config},
                                         dir_ + "/mosquitto-" + std::to_string(starts_) + ".log");
    return process_->wait_for("running", kStartTimeoutS);
}

void Broker::stop() {
    if (process_) {
        process_->signal(SIGTERM);
        process_->wait(kStartTimeoutS);
    }
}

std::string Broker::url() const {
    return "mqtt://127.0.0.1:" + std::to_string(port_);
}

SecureBroker::SecureBroker(const std::string &dir, const std::vector<std::string> &devices,
                           bool client_certificates)
    : dir_(dir + "/secure-broker"), devices_(devices), client_certificates_(client_certificates),
      port_(free_port()) {}

bool SecureBroker::start() {
    std::error_code ignored;
    std::filesystem::create_directories(dir_, ignored);
    std::string error;
    if (!vexo_test::write_test_certificate(dir_, &error)) {
        setup_ = error;
        return false;
    }
    if (client_certificates_) {
        // The clients' certificate is self-signed too: the broker trusts it as an authority
        // of its own, beside its certificate.
        std::filesystem::create_directories(dir_ + "/client", ignored);
        if (!vexo_test::write_test_certificate(dir_ + "/client", &error, "vexo test client")) {
            setup_ = error;
            return false;
        }
        std::ifstream client(client_cert());
        std::ofstream(ca_file(), std::ios::app) << client.rdbuf();
    }
    std::vector<std::string> argv = {kSecureBrokerScript, "write", dir_, std::to_string(port_),
                                     kServiceLogin};
    argv.insert(argv.end(), devices_.begin(), devices_.end());
    const e2e::Result written =
        e2e::run(argv, {client_certificates_ ? "VEXO_MQTT_REQUIRE_CERTIFICATE=1"
                                             : "VEXO_MQTT_REQUIRE_CERTIFICATE=0"});
    setup_ = written.out;
    if (written.status != 0) {
        return false;
    }
    process_ = std::make_unique<Process>(
        std::vector<std::string>{kMosquitto, "-c", dir_ + "/mosquitto.conf"}, dir_ + "/run.log");
    return process_->wait_for("running", kStartTimeoutS);
}

std::string SecureBroker::password(const std::string &login) const {
    std::ifstream in(password_file(login));
    std::string line;
    std::getline(in, line);
    return line;
}

Cloud::Cloud(const std::string &dir, const std::string &broker_url,
             const std::vector<std::string> &extra)
    : dir_(dir), data_(dir + "/cloud") {
    args_ = {"--data", data_};
    if (!broker_url.empty()) {
        args_.insert(args_.end(), {"--mqtt", broker_url});
    }
    args_.insert(args_.end(), extra.begin(), extra.end());
    launch("127.0.0.1:0");
}

bool Cloud::launch(const std::string &listen) {
    std::vector<std::string> argv = {kCloudTool, "serve", "--listen", listen};
    argv.insert(argv.end(), args_.begin(), args_.end());
    ++starts_;
    process_ = std::make_unique<Process>(
        argv, dir_ + "/vexo-cloud" + (starts_ > 1 ? "-" + std::to_string(starts_) : std::string()) +
                  ".log");
    if (!process_->wait_for(kListening, kStartTimeoutS)) {
        return false;
    }
    const std::string text = process_->output();
    const size_t from = text.find(kListening) + sizeof kListening - 1;
    url_ = text.substr(from, text.find(' ', from) - from);
    return true;
}

void Cloud::kill() {
    process_->signal(SIGKILL);
    process_->wait(kStartTimeoutS);
}

bool Cloud::restart() {
    const std::string scheme_end = "://";
    return launch(url_.substr(url_.find(scheme_end) + scheme_end.size()));
}

e2e::Result Cloud::admin(std::vector<std::string> args) const {
    args.insert(args.begin(), kCloudTool);
    args.insert(args.end(), {"--server", url_});
    return e2e::run(args);
}

int Cloud::stop() {
    process_->signal(SIGTERM);
    return process_->wait(kStartTimeoutS);
}

Clip make_clip(const std::string &dir) {
    Clip clip;
    clip.path = e2e::make_clip(dir, "clip.mkv", 320, 240, 20, 40, 6, "pcm_mulaw", 300);
    const auto keys = e2e::source_key_frames(dir, clip.path);
    clip.keys.insert(keys.begin(), keys.end());
    return clip;
}

std::vector<std::string> camsim_args(const Cloud &cloud, const std::string &broker_url,
                                     const std::string &data, const std::string &clip,
                                     const std::string &device,
                                     const std::vector<std::string> &extra) {
    std::vector<std::string> argv = {kCamsim, "--quiet",  "--input", clip,      "--data",
                                     data,    "--device", device,    "--cloud", cloud.url()};
    if (!broker_url.empty()) {
        argv.insert(argv.end(), {"--mqtt", broker_url});
    }
    argv.insert(argv.end(), extra.begin(), extra.end());
    return argv;
}

} // namespace integration
