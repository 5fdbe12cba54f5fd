// The kit's MQTT client: its TLS and login settings, and commands through a real mosquitto broker
// started by the test (delivery, bad messages, commands kept while the camera was away, a broker
// not up yet).
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <thread>
#include <vector>

#include "host_kit.h"
#include "mosquitto_broker.h"
#include "mqtt_client.h"
#include "recording_cloud.h"
#include "tests/support/temp_dir.h"
#include "unused_port.h"
#include "vexo_device.h"

namespace {

using hostkit::MqttAddress;

TEST(MqttSecurity, RefusesSettingsThatCannotWork) {
    vexo_test::TempDir dir("vexo-mqtt-security");
    const std::string not_pem = dir.path() + "/not.pem";
    std::ofstream(not_pem) << "just text\n";
    const std::string pem = dir.path() + "/ca.pem";
    std::ofstream(pem) << "-----BEGIN CERTIFICATE-----\nMIIB\n-----END CERTIFICATE-----\n";
    const std::string missing = dir.path() + "/missing.pem";
    MqttAddress plain;
    MqttAddress tls;
    tls.tls = true;
    struct Case {
        const MqttAddress &address;
        hostkit::MqttSecurity security;
        const char *error; // nullptr: accepted
    };
    const Case cases[] = {
        {plain, {}, nullptr},
        {plain, {"", "", "", "cam1", "secret"}, nullptr},
        {tls, {}, nullptr}, // the system's authorities
        {tls, {pem, pem, pem, "cam1", ""}, nullptr},
        {plain, {pem, "", "", "", ""}, "need an mqtts:// broker"},
        {plain, {"", pem, pem, "", ""}, "need an mqtts:// broker"},
        {tls, {missing, "", "", "", ""}, "cannot read the MQTT CA file"},
        {tls, {not_pem, "", "", "", ""}, "holds no PEM certificate"},
        {tls, {pem, pem, "", "", ""}, "go together"},
        {tls, {pem, "", pem, "", ""}, "go together"},
        {tls, {pem, missing, pem, "", ""}, "cannot read the MQTT certificate"},
        {tls, {pem, pem, missing, "", ""}, "cannot read the MQTT key"},
        {tls, {pem, "", "", "", "secret"}, "needs a user name"},
    };
    for (size_t i = 0; i < sizeof cases / sizeof cases[0]; ++i) {
        const Case &c = cases[i];
        std::string error;
        const bool ok = hostkit::check_mqtt_security(c.address, c.security, &error);
        if (c.error == nullptr) {
            EXPECT_TRUE(ok) << "case " << i << ": " << error;
        } else {
            EXPECT_FALSE(ok) << "case " << i;
            EXPECT_NE(error.find(c.error), std::string::npos) << "case " << i << ": " << error;
        }
    }
}

hostkit::Options kit_options(const std::string &dir, const std::string &mqtt_url) {
    hostkit::Options o;
    o.data_dir = dir + "/camera";
    o.device_id = "cam-mq";
    o.cloud = std::make_shared<vexo_test::RecordingCloud>(); // never called
    o.mqtt_url = mqtt_url;
    o.log_level = hostkit::LogLevel::kError;
    return o;
}

TEST(MqttKitStart, ABadUrlOrUnusableTlsFailsAndWritesNothingTheSystemsAuthoritiesDoNot) {
    vexo_test::TempDir dir("vexo-mqtt-url");
    for (const char *bad :
         {"127.0.0.1:1883", "mqtt://h:0", "mqtts://h:8883", "mqtt://a,", "mqtt://a,mqtts://b"}) {
        hostkit::Options options = kit_options(dir.path(), bad);
        // The TLS broker's CA file does not exist.
        options.mqtt_security.ca_file = dir.path() + "/no-ca.pem";
        EXPECT_EQ(hostkit::start(options), -1) << bad;
        EXPECT_FALSE(std::filesystem::exists(dir.path() + "/camera")) << bad;
    }
    // Left stopped, the kit starts again. Without a CA file the system's authorities are used,
    // with or without a client certificate; the broker not being up is no reason to refuse.
    const std::string pem = dir.path() + "/client.pem";
    std::ofstream(pem) << "-----BEGIN CERTIFICATE-----\nMIIB\n-----END CERTIFICATE-----\n";
    for (const bool with_certificate : {false, true}) {
        hostkit::Options options = kit_options(dir.path(), "mqtts://127.0.0.1:1");
        options.mqtt_security.username = "cam-mq";
        options.mqtt_security.password = "secret";
        if (with_certificate) {
            options.mqtt_security.cert_file = pem;
            options.mqtt_security.key_file = pem;
        }
        ASSERT_EQ(hostkit::start(options), 0) << with_certificate;
        hostkit::stop();
    }
}

// What the handler saw; handlers are plain functions.
std::mutex g_mu;
std::vector<std::string> g_actions; // data.action of each handled command
std::vector<std::thread::id> g_threads;

void record_handler(cJSON *root) {
    const cJSON *data = cJSON_GetObjectItem(root, "data");
    const cJSON *action = cJSON_GetObjectItem(data, "action");
    std::lock_guard<std::mutex> lock(g_mu);
    g_actions.push_back(cJSON_IsString(action) ? action->valuestring : "?");
    g_threads.push_back(std::this_thread::get_id());
}

size_t handled() {
    std::lock_guard<std::mutex> lock(g_mu);
    return g_actions.size();
}

template <typename Pred> bool wait_for(Pred pred, int seconds = 20) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (!pred()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

bool connected() {
    return hostkit::counters().mqtt_connected;
}

std::string command(const char *action) {
    return std::string(R"({"protocol":307,"data":{"action":")") + action +
           R"(","duration":30,"ext":{"user":"u1"}}})";
}

class MqttKitTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!vexo_test::MosquittoBroker::available()) {
            GTEST_SKIP() << vexo_test::MosquittoBroker::kBinary << " is not installed";
        }
        broker_ = std::make_unique<vexo_test::MosquittoBroker>(dir_.path());
        std::lock_guard<std::mutex> lock(g_mu);
        g_actions.clear();
        g_threads.clear();
    }
    void TearDown() override {
        hostkit::stop();
        broker_.reset();
    }
    void start_broker() {
        std::string error;
        ASSERT_TRUE(broker_->start(&error)) << error;
    }
    void start_kit() { ASSERT_EQ(hostkit::start(kit_options(dir_.path(), broker_->url())), 0); }
    void send(const std::string &payload) {
        std::string error;
        ASSERT_TRUE(vexo_test::publish(broker_->port(), topic_, payload, &error)) << error;
    }

    vexo_test::TempDir dir_{"vexo-mqtt"};
    std::unique_ptr<vexo_test::MosquittoBroker> broker_;
    const std::string topic_ = hostkit::MqttClient::topic_for("cam-mq");
};

TEST_F(MqttKitTest, CommandsReachTheirHandlerOnTheClientThreadAndBadOnesAreDropped) {
    EXPECT_EQ(topic_, "vexo/cam-mq/cmd");
    start_broker();
    start_kit();
    ASSERT_EQ(mqtt_attach(307, record_handler), 0);
    ASSERT_TRUE(wait_for(connected));

    send(command("record"));
    ASSERT_TRUE(wait_for([] { return handled() == 1; }));
    for (const char *dropped : {R"({"protocol":999,"data":{"action":"x"}})", "not json", "[307]",
                                R"({"data":{"action":"x"}})"}) {
        send(dropped);
    }
    send(command("pic"));
    ASSERT_TRUE(wait_for([] { return handled() == 2; }));
    std::lock_guard<std::mutex> lock(g_mu);
    EXPECT_EQ(g_actions, (std::vector<std::string>{"record", "pic"}));
    EXPECT_NE(g_threads[0], std::this_thread::get_id());
    EXPECT_EQ(g_threads[0], g_threads[1]) << "one MQTT thread";
    EXPECT_EQ(hostkit::counters().mqtt_messages, 2u);
}

TEST_F(MqttKitTest, ACommandSentWhileTheCameraWasAwayArrivesWhenItComesBack) {
    start_broker();
    start_kit();
    ASSERT_EQ(mqtt_attach(307, record_handler), 0);
    ASSERT_TRUE(wait_for(connected));
    hostkit::stop();
    EXPECT_FALSE(connected());

    // The broker keeps the camera's session and queues the command.
    send(command("record"));
    start_kit();
    // Not connected before the module attaches its handlers: the queued command would find
    // none. The client's thread says when it waits for them; by then it must not have tried
    // the broker.
    ASSERT_TRUE(wait_for([] { return hostkit::counters().mqtt_waiting_for_handler; }));
    EXPECT_EQ(hostkit::counters().mqtt_connect_attempts, 0u);
    EXPECT_FALSE(connected());
    EXPECT_EQ(handled(), 0u);
    ASSERT_EQ(mqtt_attach(307, record_handler), 0);
    ASSERT_TRUE(wait_for([] { return handled() == 1; }));
    EXPECT_TRUE(wait_for(connected));
    EXPECT_FALSE(hostkit::counters().mqtt_waiting_for_handler);
    EXPECT_EQ(hostkit::counters().mqtt_connect_attempts, 1u);
}

TEST_F(MqttKitTest, ABrokerThatIsNotUpYetIsWaitedForAndStopDoesNotWaitForIt) {
    auto attempts = [](uint64_t n) {
        return [n] { return hostkit::counters().mqtt_connect_attempts >= n; };
    };
    start_kit();
    ASSERT_EQ(mqtt_attach(307, record_handler), 0);
    ASSERT_TRUE(wait_for(attempts(1)));
    EXPECT_FALSE(connected());
    hostkit::stop(); // returns although the client is between attempts

    // The first attempt found no broker and the client tried again: it keeps waiting for one.
    start_kit();
    ASSERT_EQ(mqtt_attach(307, record_handler), 0);
    ASSERT_TRUE(wait_for(attempts(2)));
    EXPECT_FALSE(connected());
    start_broker();
    ASSERT_TRUE(wait_for(connected));
    send(command("pic_v"));
    EXPECT_TRUE(wait_for([] { return handled() == 1; }));
}

// A broker list: the client moves on from a broker it cannot reach or has lost to the next
// one, in the list's order, and takes its commands there.
class MqttFailoverTest : public MqttKitTest {
  protected:
    std::string broker_text(const vexo_test::MosquittoBroker &broker) const {
        return "127.0.0.1:" + std::to_string(broker.port());
    }
    static std::string current_broker() { return hostkit::counters().mqtt_broker; }
    void start_kit_on(const std::string &urls) {
        ASSERT_EQ(hostkit::start(kit_options(dir_.path(), urls)), 0) << urls;
        ASSERT_EQ(mqtt_attach(307, record_handler), 0);
    }
    void send_to(const vexo_test::MosquittoBroker &broker, const std::string &payload) {
        std::string error;
        ASSERT_TRUE(vexo_test::publish(broker.port(), topic_, payload, &error)) << error;
    }
};

TEST_F(MqttFailoverTest, ABrokerThatRefusesIsPassedOverForTheNextInTheList) {
    start_broker();
    // Nothing listens on the first address: the connection is refused.
    const std::string refused = "mqtt://127.0.0.1:" + std::to_string(vexo_test::unused_port());
    start_kit_on(refused + " , " + broker_->url());
    ASSERT_TRUE(wait_for(connected));
    EXPECT_EQ(current_broker(), broker_text(*broker_));
    EXPECT_EQ(hostkit::counters().mqtt_connect_attempts, 2u);
    send(command("record"));
    ASSERT_TRUE(wait_for([] { return handled() == 1; }));
}

TEST_F(MqttFailoverTest, ALostBrokerIsFollowedByTheNextAndTheFirstAgainRoundRobin) {
    vexo_test::TempDir second_dir("vexo-mqtt-second");
    vexo_test::MosquittoBroker second(second_dir.path());
    std::string error;
    start_broker();
    ASSERT_TRUE(second.start(&error)) << error;
    start_kit_on(broker_->url() + "," + second.url());
    ASSERT_TRUE(wait_for([&] { return current_broker() == broker_text(*broker_); }));

    broker_->stop();
    ASSERT_TRUE(wait_for([&] { return current_broker() == broker_text(second); }));
    send_to(second, command("record"));
    ASSERT_TRUE(wait_for([] { return handled() == 1; }));

    // Round robin: with the second gone as well, the first (back by now) is next.
    ASSERT_TRUE(broker_->start(&error)) << error;
    second.stop();
    ASSERT_TRUE(wait_for([&] { return current_broker() == broker_text(*broker_); }, 30));
    send(command("pic"));
    ASSERT_TRUE(wait_for([] { return handled() == 2; }));
    std::lock_guard<std::mutex> lock(g_mu);
    EXPECT_EQ(g_actions, (std::vector<std::string>{"record", "pic"}));
}

} // namespace
