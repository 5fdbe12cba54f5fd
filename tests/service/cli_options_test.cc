/// vexo-cloud's command line: what each admin command sends, and what is refused.
#include <gtest/gtest.h>

#include <stdlib.h>

#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "service/http/cli_options.h"
#include "service/http/mqtt_publisher.h"
#include "tests/support/temp_dir.h"

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

    // The recordings command prints a table, or with --json the answer itself.
    auto table = parse({"recordings", "cam1"});
    ASSERT_TRUE(table);
    EXPECT_EQ(table->admin.path, "/v1/admin/devices/cam1/recordings");
    EXPECT_TRUE(table->admin.recordings_table);
    auto json = parse({"recordings", "--json", "cam1"});
    ASSERT_TRUE(json);
    EXPECT_FALSE(json->admin.recordings_table);
    EXPECT_FALSE(parse({"alarms", "cam1"})->admin.recordings_table);

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
        {"alarms", "cam1", "--json"},
        {"recordings", "cam1", "cam2", "--json"},
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
                        "--mqtt", "mqtt://127.0.0.1:1883", "--admin-token", "t", "--head-timeout",
                        "2", "--body-timeout", "3", "--idle-timeout", "4", "--io-threads", "3"});
    ASSERT_TRUE(serve);
    EXPECT_TRUE(serve->serve);
    EXPECT_EQ(serve->serve_options.http.host, "0.0.0.0");
    EXPECT_EQ(serve->serve_options.http.port, 0);
    EXPECT_EQ(serve->serve_options.tokens.at("cam1"), "a=b");
    const vexo_cloud::HttpLimits &limits = serve->serve_options.http.limits;
    EXPECT_EQ(limits.head_timeout.count(), 2000);
    EXPECT_EQ(limits.body_idle_timeout.count(), 3000);
    EXPECT_EQ(limits.keep_alive_timeout.count(), 4000);
    EXPECT_EQ(limits.io_threads, 3u);
    for (const char *bad : {"0", "3601", "1.5", "-2"}) {
        EXPECT_FALSE(parse({"serve", "--data", "d", "--head-timeout", bad})) << bad;
    }
    EXPECT_FALSE(parse({"serve", "--data", "d", "--io-threads", "0"}));
}

TEST(CloudCommandLine, AnOpenAdminInterfaceOnlyListensOnLoopback) {
    const std::pair<const char *, bool> hosts[] = {{"127.0.0.1", true},
                                                   {"127.9.8.7", true},
                                                   {"localhost", true},
                                                   {"LocalHost", true},
                                                   {"::1", true},
                                                   {"[::1]", true},
                                                   {"::ffff:127.0.0.1", true},
                                                   {"0.0.0.0", false},
                                                   {"::", false},
                                                   {"10.0.0.1", false},
                                                   {"128.0.0.1", false},
                                                   {"::ffff:10.0.0.1", false},
                                                   {"camera-cloud.example", false},
                                                   {"126.255.255.255", false}};
    for (const auto &[host, loopback] : hosts) {
        EXPECT_EQ(vexo_cloud::is_loopback_host(host), loopback) << host;
        const std::string listen = std::string(host) + ":0";
        EXPECT_EQ(parse({"serve", "--data", "d", "--listen", listen}).has_value(), loopback)
            << host;
        EXPECT_TRUE(parse({"serve", "--data", "d", "--listen", listen, "--admin-token", "t"}))
            << host;
    }
}

TEST(CloudCommandLine, MqttLoginComesFromAFileOrTheEnvironment) {
    vexo_test::TempDir dir("vexo-cli");
    const std::string file = dir.path() + "/password";
    std::ofstream(file) << "s3cret word\r\nsecond line\n";
    unsetenv("VEXO_MQTT_PASSWORD");
    auto serve = parse({"serve", "--data", "d", "--mqtt", "mqtts://127.0.0.1", "--mqtt-ca",
                        "ca.pem", "--mqtt-user", "vexo-cloud", "--mqtt-password-file", file});
    ASSERT_TRUE(serve);
    const vexo_cloud::MqttSecurity &m = serve->serve_options.mqtt_security;
    EXPECT_EQ(m.ca_file, "ca.pem");
    EXPECT_EQ(m.username, "vexo-cloud");
    EXPECT_EQ(m.password, "s3cret word");

    setenv("VEXO_MQTT_PASSWORD", "from-env", 1);
    serve = parse({"serve", "--data", "d", "--mqtt", "mqtt://h", "--mqtt-user", "u"});
    ASSERT_TRUE(serve);
    EXPECT_EQ(serve->serve_options.mqtt_security.password, "from-env");
    // The file wins over the environment.
    serve = parse({"serve", "--data", "d", "--mqtt", "mqtt://h", "--mqtt-user", "u",
                   "--mqtt-password-file", file});
    ASSERT_TRUE(serve);
    EXPECT_EQ(serve->serve_options.mqtt_security.password, "s3cret word");
    unsetenv("VEXO_MQTT_PASSWORD");

    std::ofstream(dir.path() + "/empty") << "\n";
    const std::vector<std::vector<std::string>> bad = {
        {"serve", "--data", "d", "--mqtt-user", "u"}, // no broker
        {"serve", "--data", "d", "--mqtt-ca", "ca.pem"},
        {"serve", "--data", "d", "--mqtt", "mqtt://h", "--mqtt-password-file", file}, // no user
        {"serve", "--data", "d", "--mqtt", "mqtt://h", "--mqtt-user", "u", "--mqtt-password-file",
         dir.path() + "/missing"},
        {"serve", "--data", "d", "--mqtt", "mqtt://h", "--mqtt-user", "u", "--mqtt-password-file",
         dir.path() + "/empty"},
    };
    for (const auto &args : bad) {
        EXPECT_FALSE(parse(args)) << args[3];
    }
}

/// The publisher refuses settings that cannot work before it connects anywhere.
TEST(CloudMqttPublisher, RefusesSecuritySettingsThatCannotWork) {
    vexo_test::TempDir dir("vexo-cli");
    const std::string not_pem = dir.path() + "/not.pem";
    std::ofstream(not_pem) << "just text\n";
    const std::string pem = dir.path() + "/ca.pem";
    std::ofstream(pem) << "-----BEGIN CERTIFICATE-----\nMIIB\n-----END CERTIFICATE-----\n";
    struct Case {
        const char *url;
        vexo_cloud::MqttSecurity security;
        const char *error;
    };
    const Case cases[] = {
        {"mqtt://127.0.0.1:1", {pem, "", "", "", ""}, "need an mqtts:// broker"},
        {"mqtts://127.0.0.1:1", {dir.path() + "/missing.pem", "", "", "", ""}, "cannot read"},
        {"mqtts://127.0.0.1:1", {not_pem, "", "", "", ""}, "holds no PEM certificate"},
        {"mqtts://127.0.0.1:1", {pem, pem, "", "", ""}, "go together"},
        {"mqtts://127.0.0.1:1", {pem, pem, dir.path() + "/missing.key", "", ""}, "cannot read"},
        {"mqtts://127.0.0.1:1", {pem, "", "", "", "secret"}, "needs a user name"},
        {"mqtt://u:p@127.0.0.1:1", {}, "without user"},
        {"mqtt://127.0.0.1:1/x", {}, "without user, path or query"},
    };
    for (const Case &c : cases) {
        std::string error;
        EXPECT_EQ(vexo_cloud::MqttPublisher::start(c.url, c.security, &error), nullptr) << c.url;
        EXPECT_NE(error.find(c.error), std::string::npos) << error;
    }
    // Without a CA file the system's authorities are used, with or without a client
    // certificate.
    for (const vexo_cloud::MqttSecurity &system_cas :
         {vexo_cloud::MqttSecurity{}, vexo_cloud::MqttSecurity{"", pem, pem, "", ""}}) {
        std::string why;
        EXPECT_NE(vexo_cloud::MqttPublisher::start("mqtts://127.0.0.1:1", system_cas, &why),
                  nullptr)
            << why;
    }
    // A usable CA file starts it (the broker not being up is no error), as does a broker
    // named by its IPv6 address.
    std::string error;
    EXPECT_NE(vexo_cloud::MqttPublisher::start("mqtt://[::1]:1", {}, &error), nullptr) << error;
    EXPECT_NE(
        vexo_cloud::MqttPublisher::start("mqtts://127.0.0.1:1", {pem, "", "", "u", "p"}, &error),
        nullptr)
        << error;
}

} // namespace
