/// The kit's MQTT client: receives the cloud's commands for this device from a broker and
/// hands each to the kit's dispatch (mqtt_dispatch) on the client's own thread, the kit's
/// MQTT thread while a network broker is used.
///
/// The client keeps its session (clean session off) under a client id made from the device
/// id and subscribes to "vexo/<device>/cmd" with QoS 1 on every connection, so commands the
/// broker queued while the camera was away arrive when it comes back. It connects once the
/// module attaches its first handler (so those queued commands find their handler), and
/// reconnects by itself with a delay growing from 1 to 10 seconds.
///
/// Given several brokers (a cluster, or a standby), it uses one at a time: when a connection
/// attempt fails or the connection is lost it moves on to the next in the list, round robin,
/// after the same delay. The session goes with it, so a cluster that shares sessions between
/// its nodes (NATS keeps them in JetStream) hands over the commands queued meanwhile.
///
/// Over mqtts:// it verifies the broker's certificate chain and host name (against the
/// options' CA file, or the system's authorities), may show a client certificate, and logs
/// in with the options' user name and password when there is one.
#ifndef VEXO_HOST_MQTT_CLIENT_H
#define VEXO_HOST_MQTT_CLIENT_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "common/mqtt_url.h"
#include "host_kit.h"

struct mosquitto;
struct mosquitto_message;

namespace hostkit {

using kitcommon::kMqttPort;
using kitcommon::kMqttTlsPort;
using kitcommon::MqttAddress;
using kitcommon::parse_mqtt_url;
using kitcommon::parse_mqtt_url_list;

/// Checks that the TLS and login settings fit the broker address and that the files they
/// name can be used: a CA file must hold a PEM certificate, certificate and key go
/// together and are readable, a password needs a user name, and the files are for mqtts
/// only. False with *error saying which setting is wrong.
bool check_mqtt_security(const MqttAddress &address, const MqttSecurity &security,
                         std::string *error);

/// The same for a list of brokers the client fails over between: one TLS and login setting
/// for all, so they must all be mqtt:// or all mqtts://.
bool check_mqtt_brokers(const std::vector<MqttAddress> &brokers, const MqttSecurity &security,
                        std::string *error);

class MqttClient {
  public:
    /// A client for the device, not connected yet. Null with *error when libmosquitto cannot
    /// make one.
    /// brokers (at least one) and security must have passed check_mqtt_brokers.
    static std::unique_ptr<MqttClient> create(const std::vector<MqttAddress> &brokers,
                                              const MqttSecurity &security,
                                              const std::string &device_id, std::string *error);
    /// Disconnects and ends the client's thread; no message is dispatched after it returns.
    ~MqttClient();
    MqttClient(const MqttClient &) = delete;
    MqttClient &operator=(const MqttClient &) = delete;

    /// Starts connecting (the first call; later calls do nothing). Returns at once.
    void connect();

    static std::string topic_for(const std::string &device_id) {
        return "vexo/" + device_id + "/cmd";
    }

    bool waiting_for_handler() const { return waiting_for_handler_.load(); }
    uint64_t connect_attempts() const { return connect_attempts_.load(); }

  private:
    MqttClient(const std::vector<MqttAddress> &brokers, const std::string &device_id,
               mosquitto *mosq);
    const MqttAddress &address() const { return brokers_[current_]; }
    /// Moves on to the next broker of the list (the same one when there is only one).
    void next_broker();
    void run();
    bool stopping();
    /// Waits the current reconnect delay and doubles it (up to the maximum); false when the
    /// client is stopping.
    bool wait_before_retry();
    void note_failure(const char *what, int rc, int saved_errno);

    static void on_connect(mosquitto *mosq, void *self, int rc);
    static void on_disconnect(mosquitto *mosq, void *self, int rc);
    static void on_subscribe(mosquitto *mosq, void *self, int mid, int count, const int *granted);
    static void on_message(mosquitto *mosq, void *self, const mosquitto_message *message);

    const std::vector<MqttAddress> brokers_;
    const std::string topic_;
    mosquitto *mosq_;

    std::mutex mu_;
    std::condition_variable cv_;
    bool go_ = false;
    bool stop_ = false;
    std::thread thread_;

    // Written on the client's thread, read by counters().
    std::atomic<bool> waiting_for_handler_{false};
    std::atomic<uint64_t> connect_attempts_{0};

    // Used on the client's thread only.
    bool connected_ = false;
    size_t current_ = 0; ///< the broker in brokers_ tried or used now
    bool outage_logged_ = false;
    uint32_t retry_delay_s_ = 1;
};

} // namespace hostkit

#endif
