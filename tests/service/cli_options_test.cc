/// vexo-cloud's command line: what each admin command sends, and what is refused.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "service/http/cli_options.h"
#include "service/http/mqtt_publisher.h"

namespace {

std::optional<vexo_cloud::Command> parse(std::vector<std::string> args) {
    args.insert(args.begin(), "vexo-cloud");
    std::vector<char *> argv;
    for (std::string &a : args) {
        argv.push_back(a.data());
    }
    bool exit_now = false;
    ::testing::internal::CaptureStderr();
    auto command =
        vexo_cloud::parse_command_line(static_cast<int>(argv.size()), argv.data(), &exit_now);
    ::testing::internal::GetCapturedStderr();
    return command;
}

TEST(CloudCommandLine, AdminCommandsBecomeTheirRequests) {
    auto order = parse({"order", "cam1", "--store-mode", "event", "--count-left", "4", "--expired",
                        "no", "--server", "http://h:1"});
    ASSERT_TRUE(order);
    EXPECT_EQ(order->admin.method, "PUT");
    EXPECT_EQ(order->admin.server, "http://h:1");
    EXPECT_EQ(order->admin.path, "/v1/admin/devices/cam1/order");
    EXPECT_EQ(nlohmann::json::parse(order->admin.body),
              nlohmann::json::parse(R"({"storeMode":"event","countLeft":4,"expired":false})"));

    auto show = parse({"order", "cam1"});
    ASSERT_TRUE(show);
    EXPECT_EQ(show->admin.method, "GET");

    auto trigger = parse({"trigger", "cam1", "pic_v", "--duration", "15", "--ext", "{\"u\":1}"});
    ASSERT_TRUE(trigger);
    EXPECT_EQ(trigger->admin.path, "/v1/admin/devices/cam1/trigger");
    EXPECT_EQ(nlohmann::json::parse(trigger->admin.body),
              nlohmann::json::parse(R"({"action":"pic_v","duration":15,"ext":{"u":1}})"));

    // The ends of the 32-bit range pass as they are; the service judges them.
    auto edges = parse({"order", "cam1", "--slice", "2147483647", "--count-left", "-2147483648"});
    ASSERT_TRUE(edges);
    EXPECT_EQ(nlohmann::json::parse(edges->admin.body),
              nlohmann::json::parse(R"({"sliceDuration":2147483647,"countLeft":-2147483648})"));
}

TEST(CloudCommandLine, BadArgumentsAreRefused) {
    const std::vector<std::vector<std::string>> bad = {
        {},
        {"serve"},
        {"serve", "--data", "d", "--listen", "nowhere"},
        {"serve", "--data", "d", "--listen", "127.0.0.1:70000"},
        {"serve", "--data", "d", "--tls-cert", "c.pem"},
        {"serve", "--data", "d", "--token", "cam1"},
        {"order"},
        {"order", "cam1", "--expired", "maybe"},
        {"order", "cam1", "--slice", "ten"},
        // Numbers that do not fit, or are not plain decimal whole numbers.
        {"order", "cam1", "--slice", "1e300"},
        {"order", "cam1", "--slice", "2147483648"},
        {"order", "cam1", "--count-left", "-2147483649"},
        {"order", "cam1", "--slice", "99999999999999999999"},
        {"order", "cam1", "--slice", "1.5"},
        {"order", "cam1", "--slice", "+10"},
        {"order", "cam1", "--slice", " 10"},
        {"order", "cam1", "--slice", "-"},
        {"order", "cam1", "--slice", ""},
        {"trigger", "cam1", "record", "--duration", "4294967316"},
        {"trigger", "cam1", "record", "--duration", "0x10"},
        {"serve", "--data", "d", "--max-body", "-1"},
        {"serve", "--data", "d", "--max-body", "1e12"},
        {"serve", "--data", "d", "--listen", "127.0.0.1:-80"},
        {"trigger", "cam1"},
        {"trigger", "cam1", "record", "--ext", "{"},
        {"fly", "cam1"},
    };
    for (const auto &args : bad) {
        std::string joined;
        for (const auto &a : args) {
            joined += a + " ";
        }
        EXPECT_FALSE(parse(args)) << joined;
    }
}

TEST(CloudCommandLine, ServeOptions) {
    auto serve = parse({"serve", "--data", "d", "--listen", "0.0.0.0:0", "--token", "cam1=a=b",
                        "--mqtt", "mqtt://127.0.0.1:1883"});
    ASSERT_TRUE(serve);
    EXPECT_TRUE(serve->serve);
    EXPECT_EQ(serve->serve_options.http.host, "0.0.0.0");
    EXPECT_EQ(serve->serve_options.http.port, 0);
    EXPECT_EQ(serve->serve_options.tokens.at("cam1"), "a=b");
}

TEST(CloudCommandLine, MqttUrls) {
    std::string host, error;
    uint16_t port = 0;
    EXPECT_TRUE(vexo_cloud::parse_mqtt_url("mqtt://broker", &host, &port, &error));
    EXPECT_EQ(host, "broker");
    EXPECT_EQ(port, 1883);
    EXPECT_TRUE(vexo_cloud::parse_mqtt_url("mqtt://127.0.0.1:18830/", &host, &port, &error));
    EXPECT_EQ(port, 18830);
    for (const char *bad :
         {"tcp://h:1", "mqtt://", "mqtt://h:0", "mqtt://h:99999", "mqtt://h:x", "mqtt://u@h:1"}) {
        EXPECT_FALSE(vexo_cloud::parse_mqtt_url(bad, &host, &port, &error)) << bad;
    }
}

} // namespace
