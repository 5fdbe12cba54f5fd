/// The MQTT publisher on libmosquitto: its network thread (loop_start) connects, reconnects
/// with a growing delay, and sends queued QoS 1 messages once a connection is up.
#include "mqtt_publisher.h"

#include <mosquitto.h>
#include <unistd.h>

#include <cstdio>
#include <mutex>

namespace vexo_cloud {

// ---- constants -----------------------------------------------------------------------------

namespace {

constexpr char kScheme[] = "mqtt://";
constexpr uint16_t kDefaultPort = 1883;
constexpr int kKeepAliveS = 30;
constexpr unsigned kReconnectMinS = 1;
constexpr unsigned kReconnectMaxS = 10;
constexpr int kQos = 1;

void init_library() {
    static std::once_flag once;
    std::call_once(once, [] { mosquitto_lib_init(); });
}

} // namespace

// ---- exported calls ------------------------------------------------------------------------

bool parse_mqtt_url(const std::string &url, std::string *host, uint16_t *port, std::string *error) {
    const std::string scheme = kScheme;
    if (url.compare(0, scheme.size(), scheme) != 0) {
        *error = "an MQTT broker is given as mqtt://HOST[:PORT], not \"" + url + "\"";
        return false;
    }
    std::string rest = url.substr(scheme.size());
    if (!rest.empty() && rest.back() == '/') {
        rest.pop_back();
    }
    const size_t colon = rest.rfind(':');
    *host = colon == std::string::npos ? rest : rest.substr(0, colon);
    *port = kDefaultPort;
    if (host->empty() || host->find_first_of("/@?#") != std::string::npos) {
        *error = "no usable host in \"" + url + "\"";
        return false;
    }
    if (colon != std::string::npos) {
        const std::string digits = rest.substr(colon + 1);
        unsigned long value = 0;
        bool ok = !digits.empty() && digits.size() <= 5;
        for (char c : digits) {
            ok = ok && c >= '0' && c <= '9';
            value = value * 10 + static_cast<unsigned long>(c - '0');
        }
        if (!ok || value == 0 || value > 65535) {
            *error = "bad port in \"" + url + "\"";
            return false;
        }
        *port = static_cast<uint16_t>(value);
    }
    return true;
}

std::unique_ptr<MqttPublisher> MqttPublisher::start(const std::string &url, std::string *error) {
    std::string host;
    uint16_t port = 0;
    if (!parse_mqtt_url(url, &host, &port, error)) {
        return nullptr;
    }
    init_library();
    std::unique_ptr<MqttPublisher> self(new MqttPublisher());
    self->url_ = url;
    const std::string client_id = "vexo-cloud-" + std::to_string(::getpid());
    self->client_ = mosquitto_new(client_id.c_str(), true, self.get());
    if (self->client_ == nullptr) {
        *error = "cannot create an MQTT client";
        return nullptr;
    }
    mosquitto_connect_callback_set(self->client_, &MqttPublisher::on_connect);
    mosquitto_disconnect_callback_set(self->client_, &MqttPublisher::on_disconnect);
    mosquitto_reconnect_delay_set(self->client_, kReconnectMinS, kReconnectMaxS, true);
    const int rc = mosquitto_connect_async(self->client_, host.c_str(), port, kKeepAliveS);
    if (rc != MOSQ_ERR_SUCCESS) {
        // The network thread keeps trying; say why the first attempt failed.
        std::fprintf(stderr, "vexo-cloud: mqtt: %s not reachable yet: %s\n", url.c_str(),
                     mosquitto_strerror(rc));
    }
    const int loop = mosquitto_loop_start(self->client_);
    if (loop != MOSQ_ERR_SUCCESS) {
        *error = std::string("cannot start the MQTT thread: ") + mosquitto_strerror(loop);
        return nullptr;
    }
    return self;
}

MqttPublisher::~MqttPublisher() {
    if (client_ == nullptr) {
        return;
    }
    const bool was_connected = connected_.load();
    mosquitto_disconnect(client_);
    // Without a connection the thread may sit in a reconnect delay: stop it outright.
    mosquitto_loop_stop(client_, !was_connected);
    mosquitto_destroy(client_);
}

bool MqttPublisher::publish(const std::string &device, const std::string &payload) {
    const std::string topic = "vexo/" + device + "/cmd";
    const int rc = mosquitto_publish(client_, nullptr, topic.c_str(),
                                     static_cast<int>(payload.size()), payload.data(), kQos, false);
    if (rc != MOSQ_ERR_SUCCESS) {
        std::fprintf(stderr, "vexo-cloud: mqtt: cannot publish to %s: %s\n", topic.c_str(),
                     mosquitto_strerror(rc));
        return false;
    }
    std::fprintf(stderr, "vexo-cloud: mqtt: %s %s %s\n",
                 connected() ? "published to" : "queued for", topic.c_str(), payload.c_str());
    return true;
}

void MqttPublisher::on_connect(struct mosquitto *, void *self, int result) {
    auto *publisher = static_cast<MqttPublisher *>(self);
    if (result == 0) {
        publisher->connected_ = true;
        std::fprintf(stderr, "vexo-cloud: mqtt: connected to %s\n", publisher->url_.c_str());
    } else {
        std::fprintf(stderr, "vexo-cloud: mqtt: %s refused the connection: %s\n",
                     publisher->url_.c_str(), mosquitto_connack_string(result));
    }
}

void MqttPublisher::on_disconnect(struct mosquitto *, void *self, int reason) {
    auto *publisher = static_cast<MqttPublisher *>(self);
    publisher->connected_ = false;
    if (reason != 0) {
        std::fprintf(stderr, "vexo-cloud: mqtt: lost %s, reconnecting\n", publisher->url_.c_str());
    }
}

} // namespace vexo_cloud
