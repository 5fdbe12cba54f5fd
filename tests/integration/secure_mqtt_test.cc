// The locked-down broker: TLS, logins and the ACL of scripts/mosquitto-secure.sh, probed with
// libmosquitto clients of the test's own (who may connect, read and publish what), and a
// remote trigger from vexo-cloud to vexo-camsim going through it.
#include <gtest/gtest.h>
#include <mosquitto.h>
#include <signal.h>

#include <chrono>
#include <deque>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>

#include "e2e_support.h"
#include "network_cloud.h"
#include "tests/host/test_certificate.h"

namespace integration {
namespace {

constexpr int kAnswerTimeoutS = 10;
const std::string kCamA = "sec-cam-a";
const std::string kCamB = "sec-cam-b";

std::string command_topic(const std::string &device) {
    return "vexo/" + device + "/cmd";
}

struct Message {
    std::string topic;
    std::string payload;
};

/// A client of the test's own whose calls run the library's network loop on the calling
/// thread until the broker's answer (CONNACK, SUBACK, PUBACK, a message) came, with a bound.
/// Messages sent to it wait in its socket until one of its calls reads them.
class Probe {
  public:
    /// login empty: an anonymous client. ca_file empty: plain MQTT, no TLS. client_id
    /// empty: one made up by the library.
    Probe(const std::string &ca_file, const std::string &login, const std::string &password,
          const std::string &client_id = "", const std::string &cert_file = "",
          const std::string &key_file = "") {
        static const int init = mosquitto_lib_init();
        (void)init;
        mosq_ = mosquitto_new(client_id.empty() ? nullptr : client_id.c_str(), true, this);
        mosquitto_int_option(mosq_, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V311);
        if (!ca_file.empty()) {
            tls_rc_ = mosquitto_tls_set(mosq_, ca_file.c_str(), nullptr,
                                        cert_file.empty() ? nullptr : cert_file.c_str(),
                                        key_file.empty() ? nullptr : key_file.c_str(), nullptr);
        }
        if (!login.empty()) {
            mosquitto_username_pw_set(mosq_, login.c_str(), password.c_str());
        }
        mosquitto_connect_callback_set(mosq_, [](mosquitto *, void *self, int rc) {
            Probe *p = static_cast<Probe *>(self);
            p->connack_ = p->connack_ < 0 ? rc : p->connack_;
        });
        mosquitto_subscribe_callback_set(
            mosq_, [](mosquitto *, void *self, int, int count, const int *granted) {
                static_cast<Probe *>(self)->granted_ = count > 0 ? granted[0] : 128;
            });
        mosquitto_publish_callback_set(
            mosq_, [](mosquitto *, void *self, int) { static_cast<Probe *>(self)->acked_ = true; });
        mosquitto_message_callback_set(
            mosq_, [](mosquitto *, void *self, const mosquitto_message *m) {
                static_cast<Probe *>(self)->messages_.push_back(
                    {m->topic, std::string(static_cast<const char *>(m->payload),
                                           static_cast<size_t>(m->payloadlen))});
            });
    }
    ~Probe() {
        mosquitto_disconnect(mosq_);
        mosquitto_destroy(mosq_);
    }
    Probe(const Probe &) = delete;
    Probe &operator=(const Probe &) = delete;

    /// The broker's CONNACK code (0: accepted); -1 when the connection or its TLS handshake
    /// failed or no answer came.
    int connect(uint16_t port) {
        if (tls_rc_ != MOSQ_ERR_SUCCESS ||
            mosquitto_connect(mosq_, "127.0.0.1", port, 30) != MOSQ_ERR_SUCCESS) {
            return -1;
        }
        loop_until([this] { return connack_ >= 0; });
        return connack_;
    }
    /// The QoS the broker granted (128: refused); -1 without an answer.
    int subscribe(const std::string &topic) {
        granted_ = -1;
        if (mosquitto_subscribe(mosq_, nullptr, topic.c_str(), 1) != MOSQ_ERR_SUCCESS) {
            return -1;
        }
        loop_until([this] { return granted_ >= 0; });
        return granted_;
    }
    /// Publishes with QoS 1; true once the broker acknowledged it, false at once when the
    /// broker did not accept the client.
    bool publish(const std::string &topic, const std::string &payload) {
        acked_ = false;
        if (connack_ != 0 ||
            mosquitto_publish(mosq_, nullptr, topic.c_str(), static_cast<int>(payload.size()),
                              payload.data(), 1, false) != MOSQ_ERR_SUCCESS) {
            return false;
        }
        loop_until([this] { return acked_; });
        return acked_;
    }
    /// The next message received.
    std::optional<Message> next() {
        loop_until([this] { return !messages_.empty(); });
        if (messages_.empty()) {
            return std::nullopt;
        }
        Message m = messages_.front();
        messages_.pop_front();
        return m;
    }

  private:
    /// Until done(), the bound, or the end of the connection (a failed handshake, a refusal).
    void loop_until(const std::function<bool()> &done) {
        const auto deadline =
            std::chrono::steady_clock::now() + std::chrono::seconds(kAnswerTimeoutS);
        while (!done() && std::chrono::steady_clock::now() < deadline &&
               mosquitto_loop(mosq_, 50, 1) == MOSQ_ERR_SUCCESS) {
        }
    }

    mosquitto *mosq_ = nullptr;
    int tls_rc_ = MOSQ_ERR_SUCCESS;
    int connack_ = -1; // the first CONNACK's code
    int granted_ = -1;
    bool acked_ = false;
    std::deque<Message> messages_;
};

/// A second authority in dir/other-ca: whoever trusts it must not take the broker's
/// certificate, and the broker must not take its certificate.
std::string other_authority(const std::string &dir) {
    const std::string other = dir + "/other-ca";
    std::filesystem::create_directories(other);
    std::string error;
    EXPECT_TRUE(vexo_test::write_test_certificate(other, &error)) << error;
    return other;
}

class SecureMqttTest : public ::testing::Test {
  protected:
    void SetUp() override {
        broker_ =
            std::make_unique<SecureBroker>(tmp_.path(), std::vector<std::string>{kCamA, kCamB});
        ASSERT_TRUE(broker_->start()) << broker_->output();
    }
    /// A client with a login the broker knows, connected and accepted.
    std::unique_ptr<Probe> logged_in(const std::string &login, const std::string &client_id = "") {
        auto probe =
            std::make_unique<Probe>(broker_->ca_file(), login, broker_->password(login), client_id);
        const int connack = probe->connect(broker_->port());
        EXPECT_EQ(connack, 0) << login << "\n" << broker_->output();
        return connack == 0 ? std::move(probe) : nullptr;
    }

    e2e::TempDir tmp_;
    std::unique_ptr<SecureBroker> broker_;
};

TEST_F(SecureMqttTest, ClientsWithoutAValidLoginOrTlsCannotConnectNorPublish) {
    // mosquitto opens a plain default listener too when the configuration is out of order.
    EXPECT_EQ(occurrences(broker_->output(), "Opening ipv4 listen socket"), 1u)
        << broker_->output();
    EXPECT_EQ(occurrences(broker_->output(), "Opening ipv6 listen socket"), 0u)
        << broker_->output();
    const std::string other = other_authority(tmp_.path());
    struct Case {
        const char *what;
        std::string ca_file;
        std::string login;
        std::string password;
        bool answered; // the broker got as far as answering the CONNECT (and refused it)
    };
    const std::string service_password = broker_->password(SecureBroker::kServiceLogin);
    const Case cases[] = {
        {"anonymous", broker_->ca_file(), "", "", true},
        {"wrong password", broker_->ca_file(), kCamA, "not-" + broker_->password(kCamA), true},
        {"unknown login", broker_->ca_file(), "sec-cam-c", broker_->password(kCamA), true},
        {"no password", broker_->ca_file(), kCamA, "", true},
        {"plain MQTT", "", SecureBroker::kServiceLogin, service_password, false},
        {"another authority", other + "/server.crt", SecureBroker::kServiceLogin, service_password,
         false},
    };
    auto cam_a = logged_in(kCamA);
    ASSERT_TRUE(cam_a);
    ASSERT_EQ(cam_a->subscribe(command_topic(kCamA)), 1);
    for (const Case &c : cases) {
        Probe probe(c.ca_file, c.login, c.password);
        const int connack = probe.connect(broker_->port());
        if (c.answered) {
            // 4: bad user name or password, 5: not authorised.
            EXPECT_TRUE(connack == 4 || connack == 5) << c.what << ": CONNACK " << connack;
        } else {
            EXPECT_EQ(connack, -1) << c.what;
        }
        EXPECT_FALSE(probe.publish(command_topic(kCamA), "forged")) << c.what;
    }
    // The one that knows the login gets in, and its command is the first camera A sees.
    auto service = logged_in(SecureBroker::kServiceLogin);
    ASSERT_TRUE(service);
    ASSERT_TRUE(service->publish(command_topic(kCamA), "real"));
    const auto to_a = cam_a->next();
    ASSERT_TRUE(to_a);
    EXPECT_EQ(to_a->payload, "real");
}

TEST_F(SecureMqttTest, ADeviceReadsItsOwnCommandsOnlyAndPublishesNone) {
    auto cam_a = logged_in(kCamA);
    const std::string b_client_id = "vexo-cam-" + kCamB;
    auto cam_b = logged_in(kCamB, b_client_id);
    auto service = logged_in(SecureBroker::kServiceLogin);
    ASSERT_TRUE(cam_a && cam_b && service);
    EXPECT_EQ(cam_a->subscribe(command_topic(kCamA)), 1);
    EXPECT_EQ(cam_b->subscribe(command_topic(kCamB)), 1);
    // Camera A also asks for B's topic, all command topics and everything, and publishes
    // commands: the broker acknowledges a refused publish like any other (MQTT 3.1.1 has no
    // way to say no) and drops it.
    for (const std::string &topic :
         {command_topic(kCamB), std::string("vexo/+/cmd"), std::string("#")}) {
        EXPECT_NE(cam_a->subscribe(topic), -1) << topic;
    }
    for (const std::string &device : {kCamB, kCamA}) {
        EXPECT_TRUE(cam_a->publish(command_topic(device), "forged"));
    }
    // The broker handles one publisher's messages in order: a forged command, or B's command
    // delivered to A, would arrive before the service's own.
    ASSERT_TRUE(service->publish(command_topic(kCamB), "for-b"));
    ASSERT_TRUE(service->publish(command_topic(kCamA), "for-a"));
    const auto to_b = cam_b->next();
    ASSERT_TRUE(to_b);
    EXPECT_EQ(to_b->payload, "for-b");
    const auto to_a = cam_a->next();
    ASSERT_TRUE(to_a);
    EXPECT_EQ(to_a->topic, command_topic(kCamA));
    EXPECT_EQ(to_a->payload, "for-a");

    // A claims the client id the kit gives B; the broker goes by the login, so B keeps its
    // session (had the impostor taken it, the broker would have thrown B out).
    auto impostor = logged_in(kCamA, b_client_id);
    ASSERT_TRUE(impostor);
    ASSERT_TRUE(service->publish(command_topic(kCamB), "again"));
    const auto again = cam_b->next();
    ASSERT_TRUE(again);
    EXPECT_EQ(again->payload, "again");
}

TEST_F(SecureMqttTest, ARemoteTriggerGoesFromTheServiceToTheCameraOverTls) {
    Cloud cloud(tmp_.path(), broker_->url(),
                {"--mqtt-ca", broker_->ca_file(), "--mqtt-user", SecureBroker::kServiceLogin,
                 "--mqtt-password-file", broker_->password_file(SecureBroker::kServiceLogin)});
    ASSERT_TRUE(cloud.up()) << cloud.log();
    const std::string clip = make_clip(tmp_.path()).path;
    // The camera's password comes from the environment, the service's from its file.
    const e2e::Result r =
        e2e::run(camsim_args(cloud, broker_->url(), tmp_.path() + "/camera", clip, kCamA,
                             {"--mqtt-ca", broker_->ca_file(), "--mqtt-user", kCamA, "--speed", "2",
                              "--duration", "12", "--trigger", "4:pic"}),
                 {"VEXO_MQTT_PASSWORD=" + broker_->password(kCamA)});
    ASSERT_EQ(r.status, 0) << r.out;
    EXPECT_NE(r.out.find("mqtt connected"), std::string::npos) << r.out;
    ASSERT_EQ(cloud.stop(), 0);
    vexo_cloud::Options options;
    options.data_dir = cloud.data();
    const auto alarms = vexo_cloud::Service(options).alarms(kCamA);
    ASSERT_EQ(alarms.size(), 1u) << r.out << cloud.log();
    EXPECT_TRUE(alarms[0].with_picture);
}

TEST_F(SecureMqttTest, TheCameraAndTheServiceDoNotTrustAnotherBrokerNorGetInWithABadLogin) {
    const std::string other = other_authority(tmp_.path());
    const std::string wrong_password = tmp_.path() + "/wrong.password";
    std::ofstream(wrong_password) << "not-" << broker_->password(kCamA) << "\n";

    // The service trusting another authority: the handshake fails, it publishes nothing.
    Cloud cloud(tmp_.path(), broker_->url(),
                {"--mqtt-ca", other + "/server.crt", "--mqtt-user", SecureBroker::kServiceLogin,
                 "--mqtt-password-file", broker_->password_file(SecureBroker::kServiceLogin)});
    ASSERT_TRUE(cloud.up()) << cloud.log();
    EXPECT_TRUE(cloud.wait_for("TLS error", 60)) << cloud.log();
    EXPECT_EQ(cloud.log().find("mqtt: connected"), std::string::npos) << cloud.log();

    struct Case {
        const char *what;
        std::string ca_file;
        std::string password_file;
        const char *logged; // what the kit says about it
    };
    const Case cases[] = {
        {"another authority", other + "/server.crt", broker_->password_file(kCamA), "TLS error"},
        {"a wrong password", broker_->ca_file(), wrong_password, "refused the connection"},
    };
    const std::string clip = make_clip(tmp_.path()).path;
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        Process camsim(camsim_args(cloud, broker_->url(), tmp_.path() + "/camera", clip, kCamA,
                                   {"--mqtt-ca", c.ca_file, "--mqtt-user", kCamA,
                                    "--mqtt-password-file", c.password_file, "--duration", "600"}),
                       tmp_.path() + "/camsim.log");
        EXPECT_TRUE(camsim.wait_for(c.logged, 60)) << camsim.output();
        EXPECT_EQ(camsim.output().find("mqtt connected"), std::string::npos) << camsim.output();
    } // (the camera is killed as it goes)
}

/// A broker that asks for client certificates as well as logins: only a trusted one gets a
/// client in, and the camera and the service connect with theirs.
TEST(ClientCertificateMqttTest, OnlyClientsWithATrustedCertificateGetIn) {
    e2e::TempDir tmp;
    SecureBroker broker(tmp.path(), {kCamA}, true);
    ASSERT_TRUE(broker.start()) << broker.output();
    const std::string other = other_authority(tmp.path());
    struct Case {
        const char *what;
        std::string cert;
        std::string key;
        int connack;
    };
    const Case cases[] = {
        {"no certificate", "", "", -1},
        {"an unknown certificate", other + "/server.crt", other + "/server.key", -1},
        {"the trusted certificate", broker.client_cert(), broker.client_key(), 0},
    };
    for (const Case &c : cases) {
        Probe probe(broker.ca_file(), kCamA, broker.password(kCamA), "", c.cert, c.key);
        EXPECT_EQ(probe.connect(broker.port()), c.connack) << c.what;
    }

    const std::vector<std::string> tls = {"--mqtt-ca",   broker.ca_file(),
                                          "--mqtt-cert", broker.client_cert(),
                                          "--mqtt-key",  broker.client_key()};
    std::vector<std::string> cloud_options = tls;
    cloud_options.insert(cloud_options.end(),
                         {"--mqtt-user", SecureBroker::kServiceLogin, "--mqtt-password-file",
                          broker.password_file(SecureBroker::kServiceLogin)});
    Cloud cloud(tmp.path(), broker.url(), cloud_options);
    ASSERT_TRUE(cloud.up()) << cloud.log();
    const std::string clip = make_clip(tmp.path()).path;
    std::vector<std::string> camera_options = tls;
    camera_options.insert(camera_options.end(), {"--mqtt-user", kCamA, "--mqtt-password-file",
                                                 broker.password_file(kCamA), "--duration", "600"});
    Process camsim(
        camsim_args(cloud, broker.url(), tmp.path() + "/camera", clip, kCamA, camera_options),
        tmp.path() + "/camsim.log");
    EXPECT_TRUE(camsim.wait_for("mqtt connected", 60)) << camsim.output();
    EXPECT_TRUE(cloud.wait_for("mqtt: connected to " + broker.url(), 60)) << cloud.log();
    camsim.signal(SIGTERM);
    EXPECT_EQ(cloud.stop(), 0);
}

} // namespace
} // namespace integration
