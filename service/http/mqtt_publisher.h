/// Publishes the service's commands to devices over MQTT: topic "vexo/<device>/cmd", QoS 1.
/// A thread of its own connects, reconnects with a doubling delay (1 s up to 10 s) and runs
/// the client's network loop; given several brokers (a cluster), it moves on to the next one
/// whenever a connection fails or is lost. It speaks MQTT 3.1.1, which every broker takes. A
/// command published while the broker is away waits in a bounded queue and goes out when the
/// connection is back, in order.
#ifndef VEXO_CLOUD_MQTT_PUBLISHER_H
#define VEXO_CLOUD_MQTT_PUBLISHER_H

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

struct mosquitto;

namespace vexo_cloud {

/// How the publisher proves who it is and checks the broker. Files are PEM.
struct MqttSecurity {
    std::string ca_file;   ///< authorities for an mqtts broker; empty: the system's
    std::string cert_file; ///< a client certificate, with key_file
    std::string key_file;
    std::string username; ///< the broker login; empty: none
    std::string password;
};

class MqttPublisher {
  public:
    /// Starts a client for the broker at url (common/mqtt_url.h: mqtt:// or mqtts://, an
    /// IPv6 host in brackets), or for the brokers of a comma-separated list of such URLs
    /// (all mqtt:// or all mqtts://, one login and TLS setting for all); nullptr with *error for a
    /// bad URL, security settings that cannot work (TLS files for mqtt://, a CA file without a
    /// certificate, an unreadable certificate or key, a password without a user) or when the client
    /// cannot be made. A broker that is not up yet is not an error.
    static std::unique_ptr<MqttPublisher> start(const std::string &url,
                                                const MqttSecurity &security, std::string *error);
    ~MqttPublisher();
    MqttPublisher(const MqttPublisher &) = delete;
    MqttPublisher &operator=(const MqttPublisher &) = delete;

    /// Publishes payload to the device's command topic now, or queues it until the broker is
    /// back. False (with a log line) when it had to be dropped.
    bool publish(const std::string &device, const std::string &payload);

  private:
    MqttPublisher() = default;
    void run();
    /// Sends what waits in the queue; the caller holds mutex_.
    void flush_locked();
    static void on_connect(struct mosquitto *client, void *self, int result);
    static void on_disconnect(struct mosquitto *client, void *self, int reason);

    struct mosquitto *client_ = nullptr;
    /// The broker used now as a URL, "mqtt[s]://host:port".
    std::string broker_text() const;

    std::string url_;
    struct Broker {
        std::string host;
        uint16_t port;
        bool tls;
    };
    std::vector<Broker> brokers_;
    size_t current_ = 0; // the broker in brokers_ used now; the loop's thread only
    std::thread thread_;
    std::mutex mutex_; // everything below
    std::condition_variable wake_;
    std::deque<std::pair<std::string, std::string>> queue_; // topic, payload
    bool stopping_ = false;
    bool connected_ = false;
};

} // namespace vexo_cloud

#endif
