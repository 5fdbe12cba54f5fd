/// Publishes the service's commands to devices over MQTT: topic "vexo/<device>/cmd", QoS 1.
/// The client connects in the background and reconnects by itself; a command published while
/// the broker is away is queued by the client and sent when the connection is back.
#ifndef VEXO_CLOUD_MQTT_PUBLISHER_H
#define VEXO_CLOUD_MQTT_PUBLISHER_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

struct mosquitto;

namespace vexo_cloud {

/// "mqtt://HOST[:PORT]" (port 1883 when left out) split into its parts; false with *error
/// for anything else.
bool parse_mqtt_url(const std::string &url, std::string *host, uint16_t *port, std::string *error);

class MqttPublisher {
  public:
    /// Starts a client for the broker at url; nullptr with *error for a bad URL or when the
    /// client cannot be made. A broker that is not up yet is not an error: the client keeps
    /// trying.
    static std::unique_ptr<MqttPublisher> start(const std::string &url, std::string *error);
    ~MqttPublisher();
    MqttPublisher(const MqttPublisher &) = delete;
    MqttPublisher &operator=(const MqttPublisher &) = delete;

    /// Publishes payload to the device's command topic. False (with a log line) when the
    /// client refused the message.
    bool publish(const std::string &device, const std::string &payload);
    bool connected() const { return connected_.load(); }

  private:
    MqttPublisher() = default;
    static void on_connect(struct mosquitto *client, void *self, int result);
    static void on_disconnect(struct mosquitto *client, void *self, int reason);

    struct mosquitto *client_ = nullptr;
    std::string url_;
    std::atomic<bool> connected_{false};
};

} // namespace vexo_cloud

#endif
