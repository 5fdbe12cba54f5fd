// MQTT broker URLs, as both the camera kit and the cloud service read them: a table of good
// addresses with what they name, and a table of bad ones that must be refused with a reason.
#include <gtest/gtest.h>

#include <string>
#include <vector>

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

TEST(MqttUrlList, NamesEveryBrokerInOrderOrRefusesTheWholeList) {
    struct Case {
        const char *text;
        std::vector<std::string> brokers; // "host:port"; empty: refused
        const char *error;
    };
    const std::string seventeen = [] {
        std::string text = "mqtt://h";
        for (int i = 1; i < 17; ++i) {
            text += ",mqtt://h";
        }
        return text;
    }();
    const Case cases[] = {
        {"mqtt://a:1", {"a:1"}, nullptr},
        {"mqtt://a:1,mqtt://b:2,mqtt://[::1]", {"a:1", "b:2", "::1:1883"}, nullptr},
        {" mqtt://a:1 ,  mqtts://b ", {"a:1", "b:8883"}, nullptr},
        {"", {}, "empty broker URL"},
        {"mqtt://a:1,", {}, "empty broker URL"},
        {",mqtt://a:1", {}, "empty broker URL"},
        {"mqtt://a:1, ,mqtt://b", {}, "empty broker URL"},
        {"mqtt://a:1,mqtt://b:0", {}, "port must be a number"},
        {"mqtt://a:1;mqtt://b:2", {}, "only mqtt://host:port"},
        {seventeen.c_str(), {}, "more than 16 brokers"},
    };
    for (const Case &c : cases) {
        std::vector<MqttAddress> list = {MqttAddress()};
        std::string error;
        const bool ok = kitcommon::parse_mqtt_url_list(c.text, &list, &error);
        if (c.error == nullptr) {
            ASSERT_TRUE(ok) << c.text << ": " << error;
            std::vector<std::string> got;
            for (const MqttAddress &a : list) {
                got.push_back(a.host + ":" + std::to_string(a.port));
            }
            EXPECT_EQ(got, c.brokers) << c.text;
        } else {
            EXPECT_FALSE(ok) << c.text;
            EXPECT_NE(error.find(c.error), std::string::npos) << c.text << ": " << error;
            EXPECT_EQ(list.size(), 1u) << c.text << ": the list is left alone";
        }
    }
}

} // namespace
