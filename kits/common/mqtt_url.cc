// Parsing MQTT broker URLs, checking every character of host and port.
#include "mqtt_url.h"

#include <algorithm>
#include <cctype>

namespace kitcommon {
namespace {

bool valid_host_name(const std::string &host) {
    if (host.empty() || host.size() > 253) {
        return false;
    }
    for (char c : host) {
        const bool ok =
            std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '.' || c == '-' || c == '_';
        if (!ok) {
            return false;
        }
    }
    return true;
}

bool valid_ipv6(const std::string &host) {
    if (host.empty() || host.size() > 45) {
        return false;
    }
    for (char c : host) {
        if (std::isxdigit(static_cast<unsigned char>(c)) == 0 && c != ':' && c != '.') {
            return false;
        }
    }
    return host.find(':') != std::string::npos;
}

bool parse_port(const std::string &text, uint16_t *port) {
    if (text.empty() || text.size() > 5) {
        return false;
    }
    uint32_t value = 0;
    for (char c : text) {
        if (c < '0' || c > '9') {
            return false;
        }
        value = value * 10 + static_cast<uint32_t>(c - '0');
    }
    if (value == 0 || value > 65535) {
        return false;
    }
    *port = static_cast<uint16_t>(value);
    return true;
}

bool lower_prefix(const std::string &text, const std::string &prefix) {
    if (text.size() < prefix.size()) {
        return false;
    }
    for (size_t i = 0; i < prefix.size(); ++i) {
        if (std::tolower(static_cast<unsigned char>(text[i])) != prefix[i]) {
            return false;
        }
    }
    return true;
}

} // namespace

bool parse_mqtt_url(const std::string &url, MqttAddress *out, std::string *error) {
    MqttAddress address;
    std::string scheme = "mqtt://";
    if (lower_prefix(url, "mqtts://")) {
        scheme = "mqtts://";
        address.tls = true;
        address.port = kMqttTlsPort;
    } else if (!lower_prefix(url, scheme)) {
        *error = "'" + url + "' must look like mqtt://host:port or mqtts://host:port";
        return false;
    }
    std::string rest = url.substr(scheme.size());
    if (!rest.empty() && rest.back() == '/') {
        rest.pop_back();
    }
    if (rest.find_first_of("/?#@") != std::string::npos) {
        *error = "'" + url + "': only " + scheme + "host:port, without user, path or query";
        return false;
    }
    std::string port_text;
    bool has_port = false;
    if (!rest.empty() && rest[0] == '[') {
        const size_t close = rest.find(']');
        if (close == std::string::npos || !valid_ipv6(rest.substr(1, close - 1))) {
            *error = "'" + url + "': bad IPv6 address";
            return false;
        }
        address.host = rest.substr(1, close - 1);
        const std::string after = rest.substr(close + 1);
        if (!after.empty()) {
            if (after[0] != ':') {
                *error = "'" + url + "': unexpected text after the address";
                return false;
            }
            has_port = true;
            port_text = after.substr(1);
        }
    } else {
        const size_t colon = rest.find(':');
        address.host = rest.substr(0, colon);
        if (colon != std::string::npos) {
            has_port = true;
            port_text = rest.substr(colon + 1);
        }
        if (!valid_host_name(address.host)) {
            *error = "'" + url + "': bad or missing host";
            return false;
        }
    }
    if (has_port && !parse_port(port_text, &address.port)) {
        *error = "'" + url + "': the port must be a number 1..65535";
        return false;
    }
    *out = std::move(address);
    return true;
}

bool parse_mqtt_url_list(const std::string &text, std::vector<MqttAddress> *out,
                         std::string *error) {
    std::vector<MqttAddress> list;
    size_t from = 0;
    while (true) {
        const size_t comma = text.find(',', from);
        const size_t end = comma == std::string::npos ? text.size() : comma;
        std::string item = text.substr(from, end - from);
        item.erase(0, std::min(item.size(), item.find_first_not_of(' ')));
        item.erase(item.find_last_not_of(' ') + 1);
        if (item.empty()) {
            *error = "'" + text + "': an empty broker URL in the list";
            return false;
        }
        if (list.size() == kMaxMqttBrokers) {
            *error = "'" + text + "': more than " + std::to_string(kMaxMqttBrokers) + " brokers";
            return false;
        }
        MqttAddress address;
        if (!parse_mqtt_url(item, &address, error)) {
            return false;
        }
        list.push_back(std::move(address));
        if (comma == std::string::npos) {
            break;
        }
        from = comma + 1;
    }
    *out = std::move(list);
    return true;
}

} // namespace kitcommon
