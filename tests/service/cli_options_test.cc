/// vexo-cloud's command line: what each admin command sends, the serve options, and what is
/// refused; the MQTT publisher's refusal of settings that cannot work.
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

using Json = nlohmann::json;
using Args = std::vector<std::string>;

std::optional<vexo_cloud::Command> parse(Args args) {
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
    const struct {
        Args args;
        const char *request; // method and path below /v1/admin/devices/cam1/
        const char *body;
    } cases[] = {
        {{"order", "cam1", "--store-mode", "event", "--count-left", "4", "--expired", "no"},
         "PUT order",
         R"({"storeMode":"event","countLeft":4,"expired":false})"},
        // The ends of the 32-bit range pass as they are; the service judges them.
        {{"order", "cam1", "--slice", "2147483647", "--count-left", "-2147483648"},
         "PUT order",
         R"({"sliceDuration":2147483647,"countLeft":-2147483648})"},
        {{"order", "cam1"}, "GET order", "null"},
        {{"trigger", "cam1", "pic_v", "--duration", "15", "--ext", "{\"u\":1}"},
         "POST trigger",
         R"({"action":"pic_v","duration":15,"ext":{"u":1}})"},
        {{"limits", "cam1", "--max-bytes", "5", "--alarms-per-day", "0", "--retention-days", "7",
          "--max-files", "9", "--retention-bytes", "11"},
         "PUT limits",
         R"({"maxBytes":5,"alarmsPerDay":0,"retentionDays":7,"maxFiles":9,"retentionBytes":11})"},
        {{"limits", "cam1"}, "GET limits", "null"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.request);
        auto command = parse(c.args);
        ASSERT_TRUE(command);
        const std::string prefix = "/v1/admin/devices/cam1/";
        ASSERT_EQ(command->admin.path.rfind(prefix, 0), 0u) << command->admin.path;
        EXPECT_EQ(command->admin.method + " " + command->admin.path.substr(prefix.size()),
                  c.request);
        const std::string &body = command->admin.body;
        EXPECT_EQ(body.empty() ? Json() : Json::parse(body), Json::parse(c.body));
    }
    EXPECT_EQ(parse({"order", "cam1", "--server", "http://h:1"})->admin.server, "http://h:1");
    // The recordings command prints a table, or with --json the answer itself.
    EXPECT_TRUE(parse({"recordings", "cam1"})->admin.recordings_table);
    EXPECT_FALSE(parse({"recordings", "--json", "cam1"})->admin.recordings_table);
}

TEST(CloudCommandLine, BadArgumentsAreRefused) {
    const std::vector<Args> bad = {
        {},
        {"serve"},
        {"serve", "--data", "d", "--listen", "127.0.0.1:70000"},
        {"serve", "--data", "d", "--head-timeout", "3601"},
        {"serve", "--data", "d", "--io-threads", "0"},
        {"serve", "--data", "d", "--max-body", "1e12"},
        {"serve", "--data", "d", "--quota-alarms", "4294967296"},
        {"serve", "--data", "d", "--db", "mysql://h/db"},
        {"serve", "--data", "d", "--db", "sqlite:"},
        {"serve", "--data", "d", "--db", "/var/lib/x.db"},
        {"order", "cam1", "--expired", "maybe"},
        // Numbers that do not fit, or are not plain decimal whole numbers.
        {"order", "cam1", "--slice", "2147483648"},
        {"order", "cam1", "--slice", "1.5"},
        {"order", "cam1", "--slice", "+10"},
        {"trigger", "cam1", "record", "--duration", "0x10"},
        {"limits", "cam1", "--max-bytes", "-5"},
        {"fly", "cam1"},
        {"alarms", "cam1", "--json"},
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
    auto serve = parse({"serve",      "--data",
                        "d",          "--listen",
                        "0.0.0.0:0",  "--token",
                        "cam1=a=b",   "--admin-token",
                        "t",          "--head-timeout",
                        "2",          "--body-timeout",
                        "3",          "--idle-timeout",
                        "4",          "--io-threads",
                        "3",          "--max-devices",
                        "50",         "--quota-bytes",
                        "1000000000", "--quota-files",
                        "10000",      "--quota-alarms",
                        "20",         "--retention-days",
                        "30",         "--retention-bytes",
                        "0",          "--retention-every",
                        "60"});
    ASSERT_TRUE(serve);
    EXPECT_TRUE(serve->serve);
    const vexo_cloud::ServeOptions &o = serve->serve_options;
    EXPECT_EQ(o.http.host, "0.0.0.0");
    EXPECT_EQ(o.tokens.at("cam1"), "a=b");
    EXPECT_EQ(o.http.limits.head_timeout.count(), 2000);
    EXPECT_EQ(o.http.limits.body_idle_timeout.count(), 3000);
    EXPECT_EQ(o.http.limits.keep_alive_timeout.count(), 4000);
    EXPECT_EQ(o.http.limits.io_threads, 3u);
    EXPECT_EQ(o.max_devices, 50u);
    EXPECT_EQ(o.default_limits.max_bytes, 1000000000u);
    EXPECT_EQ(o.default_limits.max_files, 10000u);
    EXPECT_EQ(o.default_limits.max_alarms_per_day, 20u);
    EXPECT_EQ(o.default_limits.retention_days, 30u);
    EXPECT_FALSE(o.default_limits.retention_bytes); // 0: no limit
    EXPECT_EQ(o.retention_interval, 60u);
    EXPECT_EQ(parse({"serve", "--data", "d"})->serve_options.retention_interval, 3600u);
    // Where the metadata goes: nothing given keeps the database in --data.
    for (const char *db : {"sqlite:/srv/meta.db", "postgresql://u@h:5432/vexo", "postgres://h/v"}) {
        EXPECT_EQ(parse({"serve", "--data", "d", "--db", db})->serve_options.db_url, db);
    }
    EXPECT_EQ(parse({"serve", "--data", "d"})->serve_options.db_url, "");
}

TEST(CloudCommandLine, AnOpenAdminInterfaceOnlyListensOnLoopback) {
    const std::pair<const char *, bool> hosts[] = {{"127.9.8.7", true},
                                                   {"localhost", true},
                                                   {"LocalHost", true},
                                                   {"[::1]", true},
                                                   {"::ffff:127.0.0.1", true},
                                                   {"0.0.0.0", false},
                                                   {"::", false},
                                                   {"128.0.0.1", false},
                                                   {"::ffff:10.0.0.1", false},
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
    setenv("VEXO_MQTT_PASSWORD", "from-env", 1);
    const Args serve = {"serve", "--data", "d", "--mqtt", "mqtts://h", "--mqtt-user", "u"};
    EXPECT_EQ(parse(serve)->serve_options.mqtt_security.password, "from-env");
    // The file wins over the environment.
    Args with_file = serve;
    with_file.insert(with_file.end(), {"--mqtt-ca", "ca.pem", "--mqtt-password-file", file});
    const auto command = parse(with_file);
    ASSERT_TRUE(command);
    EXPECT_EQ(command->serve_options.mqtt_security.password, "s3cret word");
    EXPECT_EQ(command->serve_options.mqtt_security.ca_file, "ca.pem");
    unsetenv("VEXO_MQTT_PASSWORD");

    std::ofstream(dir.path() + "/empty") << "\n";
    const std::vector<Args> bad = {
        {"serve", "--data", "d", "--mqtt-user", "u"},                                 // no broker
        {"serve", "--data", "d", "--mqtt", "mqtt://h", "--mqtt-password-file", file}, // no user
        {"serve", "--data", "d", "--mqtt", "mqtt://h", "--mqtt-user", "u", "--mqtt-password-file",
         dir.path() + "/empty"},
    };
    for (const auto &args : bad) {
        EXPECT_FALSE(parse(args)) << args[3];
    }
}

TEST(CloudMqttPublisher, RefusesSecuritySettingsThatCannotWork) {
    vexo_test::TempDir dir("vexo-cli");
    const std::string pem = dir.path() + "/ca.pem";
    std::ofstream(pem) << "-----BEGIN CERTIFICATE-----\nMIIB\n-----END CERTIFICATE-----\n";
    const struct {
        const char *url;
        vexo_cloud::MqttSecurity security;
        const char *error;
    } cases[] = {
        {"mqtts://127.0.0.1:1", {pem, pem, "", "", ""}, "go together"},
        {"mqtts://127.0.0.1:1", {pem, pem, dir.path() + "/missing.key", "", ""}, "cannot read"},
        {"mqtts://127.0.0.1:1", {pem, "", "", "", "secret"}, "needs a user name"},
        {"mqtt://u:p@127.0.0.1:1", {}, "without user"},
        {"mqtt://127.0.0.1:1/x", {}, "without user, path or query"},
    };
    for (const auto &c : cases) {
        std::string error;
        EXPECT_EQ(vexo_cloud::MqttPublisher::start(c.url, c.security, &error), nullptr) << c.url;
        EXPECT_NE(error.find(c.error), std::string::npos) << error;
    }
}

} // namespace
