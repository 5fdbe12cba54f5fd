// MQTT broker URLs, as both the camera kit and the cloud service read them: a table of good
// addresses with what they name, and a table of bad ones that must be refused with a reason.
#include <gtest/gtest.h>

#include "common/mqtt_url.h"

namespace {

using kitcommon::MqttAddress;

TEST(MqttUrl, AcceptsHostAndOptionalPort) {
    struct Case {
        const char *url;
        const char *host;
        uint16_t port;
        bool tls;
    };
    const Case cases[] = {
        {"mqtt://127.0.0.1:1883", "127.0.0.1", 1883, false},
        {"mqtt://broker.example", "broker.example", 1883, false},
        {"mqtt://localhost:1", "localhost", 1, false},
        {"MQTT://my-broker_1:65535/", "my-broker_1", 65535, false},
        {"mqtt://[::1]:1884", "::1", 1884, false},
        {"mqtt://[fe80::1]", "fe80::1", 1883, false},
        {"mqtt://[::ffff:127.0.0.1]:9", "::ffff:127.0.0.1", 9, false},
        {"mqtts://broker.example", "broker.example", 8883, true},
        {"MQTTS://127.0.0.1:18883/", "127.0.0.1", 18883, true},
        {"mqtts://[::1]", "::1", 8883, true},
    };
    for (const Case &c : cases) {
        MqttAddress address;
        address.port = 0;
        address.tls = !c.tls;
        std::string error;
        ASSERT_TRUE(kitcommon::parse_mqtt_url(c.url, &address, &error)) << c.url << ": " << error;
        EXPECT_EQ(address.host, c.host) << c.url;
        EXPECT_EQ(address.port, c.port) << c.url;
        EXPECT_EQ(address.tls, c.tls) << c.url;
    }
}

TEST(MqttUrl, RefusesEverythingElseWithAReasonAndLeavesTheAddress) {
    const char *const kBad[] = {"",
                                "127.0.0.1:1883",
                                "tcp://h:1883",
                                "http://h:1883",
                                "mqtts://",
                                "mqtts://u:p@h:8883",
                                "mqtts://u:p@h",
                                "mqtts://h:8883/x",
                                "mqttss://h",
                                "mqtt://",
                                "mqtt://:1883",
                                "mqtt://h:",
                                "mqtt://h:0",
                                "mqtt://h:65536",
                                "mqtt://h:99999",
                                "mqtt://h:x",
                                "mqtt://h:18a3",
                                "mqtt://h:+1883",
                                "mqtt://h:1883:1",
                                "mqtt://h:1883/vexo",
                                "mqtt://u@h:1",
                                "mqtt://u:p@h:1883",
                                "mqtt://h h:1883",
                                "mqtt://h:1883?x=1",
                                "mqtt://h#frag",
                                "mqtt://::1:1883",
                                "mqtt://[::1",
                                "mqtt://[::1]x",
                                "mqtt://[::1]:",
                                "mqtt://[]:1883",
                                "mqtt://[g::1]:1883",
                                "mqtt://h//"};
    for (const char *bad : kBad) {
        MqttAddress address;
        address.host = "untouched";
        std::string error;
        EXPECT_FALSE(kitcommon::parse_mqtt_url(bad, &address, &error)) << bad;
        EXPECT_FALSE(error.empty()) << bad;
        EXPECT_EQ(address.host, "untouched") << bad;
    }
}

} // namespace
