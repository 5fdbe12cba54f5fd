// A mosquitto broker started by a test on a free port of 127.0.0.1, and a small publisher.
#ifndef VEXO_TESTS_HOST_MOSQUITTO_BROKER_H
#define VEXO_TESTS_HOST_MOSQUITTO_BROKER_H

#include <sys/types.h>

#include <string>

namespace vexo_test {

class MosquittoBroker {
  public:
    static constexpr const char *kBinary = "/usr/sbin/mosquitto";
    static bool available();

    /// Picks a free port and writes the broker's configuration to dir; start() runs it.
    explicit MosquittoBroker(const std::string &dir);
    /// Stops the broker if it runs.
    ~MosquittoBroker();
    MosquittoBroker(const MosquittoBroker &) = delete;
    MosquittoBroker &operator=(const MosquittoBroker &) = delete;

    /// Starts the broker and waits until it accepts connections (false with *error if it
    /// does not within a few seconds). Its sessions and queued messages live in memory only.
    bool start(std::string *error);
    /// Ends the broker (SIGTERM, then SIGKILL) and waits for it.
    void stop();

    int port() const { return port_; }
    std::string url() const { return "mqtt://127.0.0.1:" + std::to_string(port_); }

  private:
    std::string config_path_;
    std::string log_path_;
    int port_ = -1;
    pid_t pid_ = -1;
};

/// Publishes one message with QoS 1 through a clean session of its own, waiting for the
/// broker's acknowledgement. False with *error when the broker cannot be reached.
bool publish(int port, const std::string &topic, const std::string &payload, std::string *error);

} // namespace vexo_test

#endif
