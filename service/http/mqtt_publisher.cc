/// The MQTT publisher on libmosquitto, with a thread of its own around the client's network
/// loop, so that it controls when to connect again and a stop never waits on a connect.
#include "mqtt_publisher.h"

#include <mosquitto.h>
#include <openssl/x509.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <mutex>
#include <sstream>

#include "common/mqtt_url.h"

namespace vexo_cloud {

// ---- constants -----------------------------------------------------------------------------

namespace {

constexpr int kKeepAliveS = 30;
constexpr unsigned kReconnectMinS = 1;
constexpr unsigned kReconnectMaxS = 10;
constexpr int kLoopWaitMs = 100;
constexpr int kQos = 1;
/// Commands kept while the broker is away; beyond that new ones are dropped.
constexpr size_t kMaxQueued = 1000;

void init_library() {
    static std::once_flag once;
    std::call_once(once, [] { mosquitto_lib_init(); });
}

bool readable(const std::string &path, const char *what, std::string *error) {
    if (std::ifstream(path).good()) {
        return true;
    }
    *error = std::string("cannot read the MQTT ") + what + " " + path + ": " + std::strerror(errno);
    return false;
}

/// Settings that cannot work are refused before anything connects.
bool check_security(bool tls, const MqttSecurity &s, std::string *error) {
    if (!tls && (!s.ca_file.empty() || !s.cert_file.empty() || !s.key_file.empty())) {
        *error = "MQTT TLS files (CA, certificate, key) need an mqtts:// broker";
        return false;
    }
    if (s.cert_file.empty() != s.key_file.empty()) {
        *error = "an MQTT client certificate and its key go together";
        return false;
    }
    if (!s.password.empty() && s.username.empty()) {
        *error = "an MQTT password needs a user name";
        return false;
    }
    if (!s.ca_file.empty()) {
        if (!readable(s.ca_file, "CA file", error)) {
            return false;
        }
        // Read through the stream buffer: gcc 12 at -O2 takes the inlined
        // istreambuf_iterator loop for a null dereference (-Wnull-dereference).
        std::ifstream in(s.ca_file, std::ios::binary);
        std::ostringstream contents;
        contents << in.rdbuf();
        const std::string text = contents.str();
        if (text.find("-----BEGIN CERTIFICATE-----") == std::string::npos) {
            *error = "the MQTT CA file " + s.ca_file + " holds no PEM certificate";
            return false;
        }
    }
    return s.cert_file.empty() ||
           (readable(s.cert_file, "certificate", error) && readable(s.key_file, "key", error));
}

/// An encrypted key would make OpenSSL ask on the terminal; the service takes none.
int no_passphrase(char *, int, int, void *) {
    return 0;
}

} // namespace

// ---- exported calls ------------------------------------------------------------------------

std::unique_ptr<MqttPublisher>
MqttPublisher::start(const std::string &url, const MqttSecurity &security, std::string *error) {
    std::unique_ptr<MqttPublisher> self(new MqttPublisher());
    std::vector<kitcommon::MqttAddress> addresses;
    if (!kitcommon::parse_mqtt_url_list(url, &addresses, error)) {
        return nullptr;
    }
    const bool tls = addresses[0].tls;
    for (const kitcommon::MqttAddress &address : addresses) {
        if (address.tls != tls) {
            *error = "MQTT brokers in one list must all be mqtt:// or all mqtts://";
            return nullptr;
        }
        self->brokers_.push_back({address.host, address.port, address.tls});
    }
    if (!check_security(tls, security, error)) {
        return nullptr;
    }
    init_library();
    self->url_ = url;
    const std::string client_id = "vexo-cloud-" + std::to_string(::getpid());
    self->client_ = mosquitto_new(client_id.c_str(), true, self.get());
    if (self->client_ == nullptr) {
        *error = "cannot create an MQTT client";
        return nullptr;
    }
    // 3.1.1 rather than the library's default 3.1: brokers such as NATS take nothing older.
    mosquitto_int_option(self->client_, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V311);
    if (!security.username.empty()) {
        const int rc = mosquitto_username_pw_set(
            self->client_, security.username.c_str(),
            security.password.empty() ? nullptr : security.password.c_str());
        if (rc != MOSQ_ERR_SUCCESS) {
            *error = std::string("cannot use the MQTT user name: ") + mosquitto_strerror(rc);
            return nullptr;
        }
        if (!tls) {
            std::fprintf(stderr, "vexo-cloud: mqtt: the login to %s goes unencrypted\n",
                         url.c_str());
        }
    }
    if (tls) {
        // The broker's certificate chain and host name are always verified: against the
        // given CA file, or the system's authorities when there is none.
        const char *ca_file = security.ca_file.empty() ? nullptr : security.ca_file.c_str();
        const char *ca_dir = nullptr;
        if (ca_file == nullptr) {
            mosquitto_int_option(self->client_, MOSQ_OPT_TLS_USE_OS_CERTS, 1);
            ca_dir = X509_get_default_cert_dir();
        }
        const int rc = mosquitto_tls_set(
            self->client_, ca_file, ca_dir,
            security.cert_file.empty() ? nullptr : security.cert_file.c_str(),
            security.key_file.empty() ? nullptr : security.key_file.c_str(), no_passphrase);
        if (rc != MOSQ_ERR_SUCCESS) {
            *error =
                std::string("cannot set up TLS for the MQTT broker: ") + mosquitto_strerror(rc);
            return nullptr;
        }
    }
    // Publishing comes from the HTTP threads while this client's loop runs on its own.
    mosquitto_threaded_set(self->client_, true);
    mosquitto_connect_callback_set(self->client_, &MqttPublisher::on_connect);
    mosquitto_disconnect_callback_set(self->client_, &MqttPublisher::on_disconnect);
    self->thread_ = std::thread([publisher = self.get()] { publisher->run(); });
    return self;
}

MqttPublisher::~MqttPublisher() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    if (thread_.joinable()) {
        thread_.join();
    }
    if (client_ != nullptr) {
        mosquitto_destroy(client_);
    }
}

void MqttPublisher::run() {
    unsigned delay_s = kReconnectMinS;
    bool socket_open = false;
    bool told_unreachable = false;
    for (;;) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (stopping_) {
                break;
            }
        }
        if (!socket_open) {
            const Broker &broker = brokers_[current_];
            const int rc =
                mosquitto_connect(client_, broker.host.c_str(), broker.port, kKeepAliveS);
            if (rc != MOSQ_ERR_SUCCESS) {
                if (!told_unreachable) {
                    std::fprintf(stderr, "vexo-cloud: mqtt: %s not reachable (%s); retrying\n",
                                 broker_text().c_str(), mosquitto_strerror(rc));
                    told_unreachable = true;
                }
                current_ = (current_ + 1) % brokers_.size();
                std::unique_lock<std::mutex> lock(mutex_);
                wake_.wait_for(lock, std::chrono::seconds(delay_s), [this] { return stopping_; });
                delay_s = std::min(delay_s * 2, kReconnectMaxS);
                continue;
            }
            socket_open = true;
        }
        // Runs the callbacks (connect, disconnect) and sends what was published.
        const int rc = mosquitto_loop(client_, kLoopWaitMs, 1);
        std::unique_lock<std::mutex> lock(mutex_);
        if (rc == MOSQ_ERR_SUCCESS) {
            if (connected_) {
                told_unreachable = false;
                delay_s = kReconnectMinS;
            }
            continue;
        }
        socket_open = false;
        // The next attempt goes to the next broker of the list (the same one if it is alone).
        const std::string failed = broker_text();
        current_ = (current_ + 1) % brokers_.size();
        if (connected_) {
            connected_ = false;
            std::fprintf(stderr, "vexo-cloud: mqtt: lost %s, reconnecting\n", failed.c_str());
            continue;
        }
        // The connection failed before the broker accepted it: a TLS handshake or a login
        // that the socket's connect did not finish. Said once, and retried with the same
        // growing delay as a broker that cannot be reached, not in a tight loop.
        if (!told_unreachable) {
            std::fprintf(stderr, "vexo-cloud: mqtt: %s not reachable (%s); retrying\n",
                         failed.c_str(), mosquitto_strerror(rc));
            told_unreachable = true;
        }
        wake_.wait_for(lock, std::chrono::seconds(delay_s), [this] { return stopping_; });
        delay_s = std::min(delay_s * 2, kReconnectMaxS);
    }
    if (socket_open) {
        mosquitto_disconnect(client_);
        mosquitto_loop(client_, kLoopWaitMs, 1);
    }
}

std::string MqttPublisher::broker_text() const {
    const Broker &broker = brokers_[current_];
    const bool ipv6 = broker.host.find(':') != std::string::npos;
    return (broker.tls ? "mqtts://" : "mqtt://") + (ipv6 ? "[" + broker.host + "]" : broker.host) +
           ":" + std::to_string(broker.port);
}

void MqttPublisher::flush_locked() {
    while (!queue_.empty() && connected_) {
        const auto &[topic, payload] = queue_.front();
        // Told before the message leaves: libmosquitto may write it to the socket inside
        // mosquitto_publish, and whatever a camera does in answer must show after this line.
        std::fprintf(stderr, "vexo-cloud: mqtt: publishing to %s %s\n", topic.c_str(),
                     payload.c_str());
        const int rc =
            mosquitto_publish(client_, nullptr, topic.c_str(), static_cast<int>(payload.size()),
                              payload.data(), kQos, false);
        if (rc == MOSQ_ERR_NO_CONN) {
            std::fprintf(stderr, "vexo-cloud: mqtt: not connected; %s kept for %s\n",
                         payload.c_str(), topic.c_str());
            connected_ = false; // the loop notices and reconnects; keep the message
            return;
        }
        if (rc != MOSQ_ERR_SUCCESS) {
            std::fprintf(stderr, "vexo-cloud: mqtt: cannot publish to %s: %s; dropped\n",
                         topic.c_str(), mosquitto_strerror(rc));
        }
        queue_.pop_front();
    }
}

bool MqttPublisher::publish(const std::string &device, const std::string &payload) {
    const std::string topic = "vexo/" + device + "/cmd";
    std::lock_guard<std::mutex> lock(mutex_);
    if (queue_.size() >= kMaxQueued) {
        std::fprintf(stderr, "vexo-cloud: mqtt: %zu commands wait for %s; %s for %s dropped\n",
                     queue_.size(), url_.c_str(), payload.c_str(), topic.c_str());
        return false;
    }
    queue_.emplace_back(topic, payload);
    if (!connected_) {
        std::fprintf(stderr, "vexo-cloud: mqtt: queued for %s until %s is back: %s\n",
                     topic.c_str(), url_.c_str(), payload.c_str());
        return true;
    }
    flush_locked();
    return true;
}

void MqttPublisher::on_connect(struct mosquitto *, void *self, int result) {
    auto *publisher = static_cast<MqttPublisher *>(self);
    if (result != 0) {
        std::fprintf(stderr, "vexo-cloud: mqtt: %s refused the connection: %s\n",
                     publisher->broker_text().c_str(), mosquitto_connack_string(result));
        return;
    }
    std::fprintf(stderr, "vexo-cloud: mqtt: connected to %s\n", publisher->broker_text().c_str());
    std::lock_guard<std::mutex> lock(publisher->mutex_);
    publisher->connected_ = true;
    publisher->flush_locked();
}

void MqttPublisher::on_disconnect(struct mosquitto *, void *self, int) {
    auto *publisher = static_cast<MqttPublisher *>(self);
    std::lock_guard<std::mutex> lock(publisher->mutex_);
    // Our own disconnect at stop is no loss.
    if (publisher->connected_ && !publisher->stopping_) {
        std::fprintf(stderr, "vexo-cloud: mqtt: lost %s, reconnecting\n",
                     publisher->broker_text().c_str());
    }
    publisher->connected_ = false;
}

} // namespace vexo_cloud
