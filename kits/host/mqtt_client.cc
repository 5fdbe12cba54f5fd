// The kit's MQTT client on libmosquitto. The client runs the network loop on a thread of its
// own (mosquitto_loop with a short wait) rather than the library's thread: connecting is
// non-blocking and the thread checks its stop flag between steps, so stopping takes at most
// one step, whatever state the connection is in.
#include "mqtt_client.h"

#include <mosquitto.h>
#include <openssl/x509.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>

#include "host_internal.h"

namespace hostkit {
namespace {

constexpr int kQos = 1;
/// Long enough for a command handler that makes a cloud call (up to 30 s) without the
/// broker taking the client for gone.
constexpr int kKeepaliveS = 60;
constexpr int kLoopWaitMs = 100;
constexpr uint32_t kMaxRetryDelayS = 10;
/// Commands are small JSON objects; anything larger is dropped unread.
constexpr int kMaxPayload = 64 * 1024;

std::string error_text(int rc, int saved_errno) {
    if (rc == MOSQ_ERR_ERRNO) {
        return std::strerror(saved_errno);
    }
    return mosquitto_strerror(rc);
}

/// A CA file is a few certificates; more than this is not one.
constexpr long kMaxCaFileBytes = 4L * 1024 * 1024;

/// Opens path for reading; false with *error naming what the file was for.
bool can_read(const std::string &path, const char *what, std::string *error) {
    FILE *f = std::fopen(path.c_str(), "rb");
    if (f == nullptr) {
        *error =
            std::string("cannot read the MQTT ") + what + " " + path + ": " + std::strerror(errno);
        return false;
    }
    (void)std::fclose(f); // opened for reading: nothing to lose on close
    return true;
}

bool holds_pem_certificate(const std::string &path, std::string *error) {
    FILE *f = std::fopen(path.c_str(), "rb");
    if (f == nullptr) {
        *error = "cannot read the MQTT CA file " + path + ": " + std::strerror(errno);
        return false;
    }
    std::string text;
    char buffer[4096];
    size_t n = 0;
    while ((n = std::fread(buffer, 1, sizeof buffer, f)) > 0 &&
           text.size() < static_cast<size_t>(kMaxCaFileBytes)) {
        text.append(buffer, n);
    }
    (void)std::fclose(f); // opened for reading: nothing to lose on close
    if (text.find("-----BEGIN CERTIFICATE-----") == std::string::npos) {
        *error = "the MQTT CA file " + path + " holds no PEM certificate";
        return false;
    }
    return true;
}

/// An encrypted key would make OpenSSL ask on the terminal; the kit takes none.
int no_passphrase(char *, int, int, void *) {
    return 0;
}

} // namespace

bool check_mqtt_security(const MqttAddress &address, const MqttSecurity &security,
                         std::string *error) {
    const bool tls_files =
        !security.ca_file.empty() || !security.cert_file.empty() || !security.key_file.empty();
    if (tls_files && !address.tls) {
        *error = "MQTT TLS files (CA, certificate, key) need an mqtts:// broker";
        return false;
    }
    if (security.cert_file.empty() != security.key_file.empty()) {
        *error = "an MQTT client certificate and its key go together";
        return false;
    }
    if (!security.password.empty() && security.username.empty()) {
        *error = "an MQTT password needs a user name";
        return false;
    }
    if (!security.ca_file.empty() && !holds_pem_certificate(security.ca_file, error)) {
        return false;
    }
    if (!security.cert_file.empty() && (!can_read(security.cert_file, "certificate", error) ||
                                        !can_read(security.key_file, "key", error))) {
        return false;
    }
    return true;
}

bool check_mqtt_brokers(const std::vector<MqttAddress> &brokers, const MqttSecurity &security,
                        std::string *error) {
    if (brokers.empty()) {
        *error = "no MQTT broker given";
        return false;
    }
    for (const MqttAddress &broker : brokers) {
        if (broker.tls != brokers[0].tls) {
            *error = "MQTT brokers in one list must all be mqtt:// or all mqtts://";
            return false;
        }
    }
    return check_mqtt_security(brokers[0], security, error);
}

std::unique_ptr<MqttClient> MqttClient::create(const std::vector<MqttAddress> &brokers,
                                               const MqttSecurity &security,
                                               const std::string &device_id, std::string *error) {
    mosquitto_lib_init();
    const std::string client_id = "vexo-cam-" + device_id;
    // clean_session false: the broker keeps the subscription and queues QoS 1 commands
    // while the camera is away.
    mosquitto *mosq = mosquitto_new(client_id.c_str(), false, nullptr);
    if (mosq == nullptr) {
        *error = std::string("cannot create an MQTT client: ") + std::strerror(errno);
        mosquitto_lib_cleanup();
        return nullptr;
    }
    mosquitto_int_option(mosq, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V311);
    std::unique_ptr<MqttClient> client(new MqttClient(brokers, device_id, mosq));
    const MqttAddress &address = brokers[0];
    if (!security.username.empty()) {
        const int rc = mosquitto_username_pw_set(
            mosq, security.username.c_str(),
            security.password.empty() ? nullptr : security.password.c_str());
        if (rc != MOSQ_ERR_SUCCESS) {
            *error = std::string("cannot use the MQTT user name: ") + mosquitto_strerror(rc);
            return nullptr;
        }
        if (!address.tls) {
            internal::log_error("mqtt: the broker login to %s:%u%s goes unencrypted (mqtt://)",
                                address.host.c_str(), static_cast<unsigned>(address.port),
                                brokers.size() > 1 ? " and the other brokers" : "");
        }
    }
    if (address.tls) {
        // The broker's certificate chain and host name are always verified: against the
        // given CA file, or the system's authorities when there is none.
        const char *ca_file = security.ca_file.empty() ? nullptr : security.ca_file.c_str();
        const char *ca_dir = nullptr;
        if (ca_file == nullptr) {
            mosquitto_int_option(mosq, MOSQ_OPT_TLS_USE_OS_CERTS, 1);
            ca_dir = X509_get_default_cert_dir();
        }
        const int rc = mosquitto_tls_set(
            mosq, ca_file, ca_dir,
            security.cert_file.empty() ? nullptr : security.cert_file.c_str(),
            security.key_file.empty() ? nullptr : security.key_file.c_str(), no_passphrase);
        if (rc != MOSQ_ERR_SUCCESS) {
            *error =
                std::string("cannot set up TLS for the MQTT broker: ") + mosquitto_strerror(rc);
            return nullptr;
        }
    }
    mosquitto_user_data_set(mosq, client.get());
    mosquitto_connect_callback_set(mosq, on_connect);
    mosquitto_disconnect_callback_set(mosq, on_disconnect);
    mosquitto_subscribe_callback_set(mosq, on_subscribe);
    mosquitto_message_callback_set(mosq, on_message);
    client->thread_ = std::thread(&MqttClient::run, client.get());
    return client;
}

MqttClient::MqttClient(const std::vector<MqttAddress> &brokers, const std::string &device_id,
                       mosquitto *mosq)
    : brokers_(brokers), topic_(topic_for(device_id)), mosq_(mosq) {}

MqttClient::~MqttClient() {
    {
        std::lock_guard<std::mutex> lock(mu_);
        stop_ = true;
    }
    cv_.notify_all();
    if (thread_.joinable()) {
        thread_.join();
    }
    mosquitto_destroy(mosq_);
    mosquitto_lib_cleanup();
    internal::set_mqtt_connected(false);
}

void MqttClient::connect() {
    {
        std::lock_guard<std::mutex> lock(mu_);
        go_ = true;
    }
    cv_.notify_all();
}

bool MqttClient::stopping() {
    std::lock_guard<std::mutex> lock(mu_);
    return stop_;
}

bool MqttClient::wait_before_retry() {
    const uint32_t delay_s = retry_delay_s_;
    retry_delay_s_ = std::min(retry_delay_s_ * 2, kMaxRetryDelayS);
    std::unique_lock<std::mutex> lock(mu_);
    return !cv_.wait_for(lock, std::chrono::seconds(delay_s), [this] { return stop_; });
}

void MqttClient::note_failure(const char *what, int rc, int saved_errno) {
    // One line per outage, not one per attempt.
    if (!outage_logged_) {
        internal::log_error("mqtt: %s %s:%u: %s; retrying %severy %u..%u s", what,
                            address().host.c_str(), static_cast<unsigned>(address().port),
                            error_text(rc, saved_errno).c_str(),
                            brokers_.size() > 1 ? "the next broker " : "", 1u, kMaxRetryDelayS);
        outage_logged_ = true;
    }
    next_broker();
}

void MqttClient::next_broker() {
    if (brokers_.size() < 2) {
        return;
    }
    current_ = (current_ + 1) % brokers_.size();
    internal::log_debug("mqtt: trying %s:%u next", address().host.c_str(),
                        static_cast<unsigned>(address().port));
}

void MqttClient::run() {
    {
        std::unique_lock<std::mutex> lock(mu_);
        waiting_for_handler_ = !go_;
        cv_.wait(lock, [this] { return go_ || stop_; });
        waiting_for_handler_ = false;
    }
    bool socket_open = false;
    while (!stopping()) {
        if (!socket_open) {
            ++connect_attempts_;
            errno = 0;
            const int rc =
                mosquitto_connect_async(mosq_, address().host.c_str(), address().port, kKeepaliveS);
            if (rc != MOSQ_ERR_SUCCESS) {
                note_failure("cannot connect to", rc, errno);
                if (!wait_before_retry()) {
                    break;
                }
                continue;
            }
            socket_open = true;
        }
        errno = 0;
        const int rc = mosquitto_loop(mosq_, kLoopWaitMs, 1);
        if (rc != MOSQ_ERR_SUCCESS) {
            // The connection failed or was lost; the library has closed the socket.
            socket_open = false;
            note_failure("no connection to", rc, errno);
            if (!wait_before_retry()) {
                break;
            }
        }
    }
    if (socket_open) {
        mosquitto_disconnect(mosq_);
        // Let the DISCONNECT go out; a broker that does not answer does not hold us up.
        for (int i = 0; i < 5 && mosquitto_loop(mosq_, 20, 1) == MOSQ_ERR_SUCCESS; ++i) {
        }
    }
}

void MqttClient::on_connect(mosquitto *mosq, void *self, int rc) {
    MqttClient *client = static_cast<MqttClient *>(self);
    if (rc != 0) {
        if (!client->outage_logged_) {
            internal::log_error("mqtt: the broker at %s:%u refused the connection: %s",
                                client->address().host.c_str(),
                                static_cast<unsigned>(client->address().port),
                                mosquitto_connack_string(rc));
            client->outage_logged_ = true;
        }
        return;
    }
    client->connected_ = true;
    client->outage_logged_ = false;
    client->retry_delay_s_ = 1;
    internal::log_debug("mqtt: connected to %s:%u", client->address().host.c_str(),
                        static_cast<unsigned>(client->address().port));
    // Every connection subscribes again: a broker that lost the session still gets it.
    const int sub = mosquitto_subscribe(mosq, nullptr, client->topic_.c_str(), kQos);
    if (sub != MOSQ_ERR_SUCCESS) {
        internal::log_error("mqtt: cannot subscribe to %s: %s", client->topic_.c_str(),
                            mosquitto_strerror(sub));
    }
}

void MqttClient::on_disconnect(mosquitto *, void *self, int rc) {
    MqttClient *client = static_cast<MqttClient *>(self);
    if (!client->connected_) {
        return; // a connection attempt that failed: reported by the loop
    }
    client->connected_ = false;
    internal::set_mqtt_connected(false);
    if (rc == 0) {
        internal::log_debug("mqtt: disconnected from %s:%u", client->address().host.c_str(),
                            static_cast<unsigned>(client->address().port));
    } else {
        internal::log_error("mqtt: lost the connection to %s:%u: %s; reconnecting",
                            client->address().host.c_str(),
                            static_cast<unsigned>(client->address().port), mosquitto_strerror(rc));
        client->outage_logged_ = true;
    }
}

void MqttClient::on_subscribe(mosquitto *, void *self, int, int count, const int *granted) {
    MqttClient *client = static_cast<MqttClient *>(self);
    if (count < 1 || granted == nullptr || granted[0] > kQos) {
        internal::log_error("mqtt: the broker refused the subscription to %s",
                            client->topic_.c_str());
        return;
    }
    // Connected for the kit's users means commands can arrive now.
    const MqttAddress &broker = client->address();
    const bool ipv6 = broker.host.find(':') != std::string::npos;
    try {
        internal::set_mqtt_connected(true, (ipv6 ? "[" + broker.host + "]" : broker.host) + ":" +
                                               std::to_string(broker.port));
    } catch (...) { // no exception may cross the library's callback
        internal::set_mqtt_connected(true);
    }
    internal::log_debug("mqtt: subscribed to %s (QoS %d)", client->topic_.c_str(), granted[0]);
}

void MqttClient::on_message(mosquitto *, void *self, const mosquitto_message *message) {
    MqttClient *client = static_cast<MqttClient *>(self);
    if (message == nullptr || message->topic == nullptr || client->topic_ != message->topic) {
        internal::log_error("mqtt: dropped a message on topic %s",
                            message != nullptr && message->topic != nullptr ? message->topic
                                                                            : "(none)");
        return;
    }
    if (message->payloadlen < 0 || message->payloadlen > kMaxPayload) {
        internal::log_error("mqtt: dropped a message of %d bytes (over %d)", message->payloadlen,
                            kMaxPayload);
        return;
    }
    try {
        mqtt_dispatch(std::string(static_cast<const char *>(message->payload),
                                  static_cast<size_t>(message->payloadlen)));
    } catch (...) {
        internal::log_error("mqtt: dropped a message: out of memory");
    }
}

// ---- the kit's client, from start() to stop() ----

namespace {
std::mutex g_client_mu;
std::unique_ptr<MqttClient> g_client;
} // namespace

namespace internal {

bool mqtt_net_start(const Options &options, std::string *error) {
    if (options.mqtt_url.empty()) {
        return true;
    }
    std::vector<MqttAddress> brokers;
    if (!parse_mqtt_url_list(options.mqtt_url, &brokers, error) ||
        !check_mqtt_brokers(brokers, options.mqtt_security, error)) {
        return false;
    }
    std::unique_ptr<MqttClient> client =
        MqttClient::create(brokers, options.mqtt_security, options.device_id, error);
    if (!client) {
        return false;
    }
    std::lock_guard<std::mutex> lock(g_client_mu);
    g_client = std::move(client);
    return true;
}

void mqtt_net_connect() {
    std::lock_guard<std::mutex> lock(g_client_mu);
    if (g_client) {
        g_client->connect();
    }
}

void mqtt_net_counters(Counters *c) {
    std::lock_guard<std::mutex> lock(g_client_mu);
    if (g_client) {
        c->mqtt_waiting_for_handler = g_client->waiting_for_handler();
        c->mqtt_connect_attempts = g_client->connect_attempts();
    }
}

void mqtt_net_stop() {
    std::unique_ptr<MqttClient> client;
    {
        std::lock_guard<std::mutex> lock(g_client_mu);
        client = std::move(g_client);
    }
    // Destroyed outside the lock: a handler still running on the client's thread may attach.
    client.reset();
}

} // namespace internal
} // namespace hostkit
