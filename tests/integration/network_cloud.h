// The network cloud of the integration tests: a mosquitto broker and a vexo-cloud service on
// loopback ports, each a real program in the background, with their logs kept for a look.
#ifndef VEXO_INTEGRATION_NETWORK_CLOUD_H
#define VEXO_INTEGRATION_NETWORK_CLOUD_H

#include <csignal>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "e2e_support.h"
#include "processes.h"

namespace integration {

using e2e::free_port;
using e2e::occurrences;
using e2e::Process;

extern const std::string kCloudTool;
extern const std::string kCamsim;
extern const std::string kMediaTool;

/// A mosquitto broker on a loopback port of its own, keeping its sessions across a restart.
class Broker {
  public:
    explicit Broker(const std::string &dir);
    /// Starts it (again, on the same port); false when it did not come up.
    bool start();
    /// Ends it with SIGTERM.
    void stop();
    std::string url() const;
    std::string output() const { return process_ ? process_->output() : ""; }

  private:
    std::string dir_;
    uint16_t port_;
    int starts_ = 0;
    std::unique_ptr<Process> process_;
};

/// A locked-down broker as scripts/mosquitto-secure.sh configures it: TLS on a loopback port
/// of its own (the certificate made by the test for 127.0.0.1), no anonymous clients, the
/// login "vexo-cloud" for the service and one per device (its device id), an ACL that lets a
/// device read only its own command topic and only the service publish commands.
class SecureBroker {
  public:
    static constexpr const char *kServiceLogin = "vexo-cloud";
    /// client_certificates: clients must show a certificate as well, client_cert() for one.
    SecureBroker(const std::string &dir, const std::vector<std::string> &devices,
                 bool client_certificates = false);
    /// Writes the configuration and starts mosquitto; false (see output()) when either failed.
    bool start();
    std::string url() const { return "mqtts://127.0.0.1:" + std::to_string(port_); }
    uint16_t port() const { return port_; }
    /// The authority clients trust the broker with.
    std::string ca_file() const { return dir_ + "/server.crt"; }
    std::string password_file(const std::string &login) const {
        return dir_ + "/users/" + login + ".password";
    }
    std::string password(const std::string &login) const;
    /// A client certificate and key the broker trusts (made with client_certificates).
    std::string client_cert() const { return dir_ + "/client/server.crt"; }
    std::string client_key() const { return dir_ + "/client/server.key"; }
    /// What the configuration script and mosquitto printed.
    std::string output() const { return setup_ + (process_ ? process_->output() : ""); }

  private:
    std::string dir_;
    std::vector<std::string> devices_;
    bool client_certificates_;
    uint16_t port_;
    std::string setup_;
    std::unique_ptr<Process> process_;
};

/// vexo-cloud serve on any free loopback port, its data in dir/cloud.
class Cloud {
  public:
    /// extra: more serve options (--token, --max-body, ...); broker_url may be empty.
    Cloud(const std::string &dir, const std::string &broker_url,
          const std::vector<std::string> &extra = {});
    bool up() const { return !url_.empty(); }
    const std::string &url() const { return url_; }
    const std::string &data() const { return data_; }
    std::string log() const { return process_->output(); }
    /// Waits until its log holds text `count` times; false on timeout.
    bool wait_for(const std::string &text, double timeout_s, size_t count = 1) {
        return process_->wait_for(text, timeout_s, count);
    }
    /// Runs a vexo-cloud admin command against this service.
    e2e::Result admin(std::vector<std::string> args) const;
    /// Stops it (SIGTERM); its exit status.
    int stop();
    /// Sends SIGTERM without waiting for the end (stop() waits for it).
    void terminate() { process_->signal(SIGTERM); }
    /// Ends it at once (SIGKILL), as a crash or a power cut would.
    void kill();
    /// Starts it again on the same port with the same data and options (after stop or kill);
    /// false when it did not come up. log() is the new run's.
    bool restart();

  private:
    bool launch(const std::string &listen);

    std::string dir_;
    std::string data_;
    std::vector<std::string> args_; // after --listen
    std::string url_;
    int starts_ = 0;
    std::unique_ptr<Process> process_;
};

/// The clip the camera runs play: 6 s of 320x240 at 20 fps with a key frame every 2 s and
/// G.711 audio (no encoder delay, so the loop has no gap in the video time line), with the
/// key frames a recording of it must hold.
struct Clip {
    std::string path;
    std::set<e2e::NalList> keys;
};
Clip make_clip(const std::string &dir);

/// vexo-camsim against the network cloud: quiet, the given clip and device, plus extra.
std::vector<std::string> camsim_args(const Cloud &cloud, const std::string &broker_url,
                                     const std::string &data, const std::string &clip,
                                     const std::string &device,
                                     const std::vector<std::string> &extra);

} // namespace integration

#endif
