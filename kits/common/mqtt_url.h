/// MQTT broker addresses as the camera kit and the cloud service are given them:
/// "mqtt://host[:port]" or, over TLS, "mqtts://host[:port]".
#ifndef VEXO_KIT_COMMON_MQTT_URL_H
#define VEXO_KIT_COMMON_MQTT_URL_H

#include <cstdint>
#include <string>
#include <vector>

namespace kitcommon {

constexpr uint16_t kMqttPort = 1883;
constexpr uint16_t kMqttTlsPort = 8883;

struct MqttAddress {
    std::string host; ///< a name, an IPv4 address or an IPv6 address without its brackets
    uint16_t port = kMqttPort;
    bool tls = false; ///< mqtts://
};

/// Parses "mqtt://host[:port]" or "mqtts://host[:port]" (scheme in any case): host a name
/// or IPv4 address, or an IPv6 address in brackets; port 1..65535, default 1883, or 8883 for
/// mqtts; nothing after the port but an optional '/'. False with *error for anything else
/// (other schemes, user info, paths, queries, bad ports).
bool parse_mqtt_url(const std::string &url, MqttAddress *out, std::string *error);

/// The most brokers a list may name.
constexpr size_t kMaxMqttBrokers = 16;

/// Parses one broker URL or several separated by commas (spaces around each allowed), in
/// order: "mqtt://a:1883,mqtt://b:1883". False with *error when any is bad, one is empty or
/// there are more than kMaxMqttBrokers.
bool parse_mqtt_url_list(const std::string &text, std::vector<MqttAddress> *out,
                         std::string *error);

} // namespace kitcommon

#endif
