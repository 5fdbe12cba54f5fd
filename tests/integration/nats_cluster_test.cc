// The camera and the service on a three-node NATS cluster (scripts/nats.sh) instead of
// mosquitto: the camera is given all three nodes, the node it is connected to dies, and a
// remote trigger the service sends while the camera moves to another node still reaches it,
// kept for the camera's persistent session in the cluster's JetStream.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/types.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <regex>

#include "cloud_service.h"
#include "e2e_support.h"
#include "network_cloud.h"

namespace integration {
namespace {

const std::string kNatsScript = VEXO_IT_NATS_SCRIPT;
const std::string kNatsServer = VEXO_IT_NATS_SERVER;
const std::string kDevice = "nats-cam";
constexpr double kRunTimeoutS = 300;

/// The cluster scripts/nats.sh runs in dir, brought down when this goes.
class NatsCluster {
  public:
    explicit NatsCluster(const std::string &dir) : dir_(dir) {}
    ~NatsCluster() {
        if (up_) {
            (void)e2e::run({kNatsScript, "down", "--dir", dir_});
        }
    }
    /// Starts the three nodes and reads their addresses; false with *out the script's output.
    bool up(std::string *out) {
        const e2e::Result r = e2e::run({kNatsScript, "up", "--dir", dir_});
        *out = r.out;
        up_ = true;
        std::ifstream env(dir_ + "/nats.env");
        for (std::string line; std::getline(env, line);) {
            const size_t eq = line.find('=');
            if (eq != std::string::npos) {
                vars_[line.substr(0, eq)] = line.substr(eq + 1);
            }
        }
        return r.status == 0 && vars_.count("NATS_MQTT_URLS") == 1;
    }
    std::string var(const std::string &name) const {
        const auto it = vars_.find(name);
        return it == vars_.end() ? "" : it->second;
    }
    /// The node (1..3) whose MQTT listener is at host:port; 0 for none.
    int node_at(const std::string &host_port) const {
        for (int i = 1; i <= 3; ++i) {
            if (var("NATS_N" + std::to_string(i) + "_MQTT") == "mqtt://" + host_port) {
                return i;
            }
        }
        return 0;
    }
    /// Ends node i at once, as a crash would.
    bool kill_node(int i) const {
        const pid_t pid = static_cast<pid_t>(std::stol(var("NATS_N" + std::to_string(i) + "_PID")));
        return ::kill(pid, SIGKILL) == 0;
    }

  private:
    std::string dir_;
    bool up_ = false;
    std::map<std::string, std::string> vars_;
};

/// The broker of the camera's last "mqtt connected to HOST:PORT" line; empty when none.
std::string last_broker(const std::string &camsim_output) {
    static const std::regex kLine(R"(\[camsim\] mqtt connected to (\S+))");
    std::string broker;
    for (std::sregex_iterator it(camsim_output.begin(), camsim_output.end(), kLine), end; it != end;
         ++it) {
        broker = (*it)[1];
    }
    return broker;
}

TEST(NatsClusterTest, TriggerSentWhileTheCamerasNodeDiesArrivesThroughAnotherNode) {
    if (kNatsServer.empty() || ::access(kNatsServer.c_str(), X_OK) != 0) {
        GTEST_SKIP() << "nats-server is not installed (scripts/install-deps.sh)";
    }
    e2e::TempDir tmp;
    NatsCluster nats(tmp.path() + "/nats");
    std::string out;
    ASSERT_TRUE(nats.up(&out)) << out;
    const std::string urls = nats.var("NATS_MQTT_URLS");
    // The service starts from the other end of the list, so that it most likely stays up
    // while the camera's node dies; either way it has the list to fail over too.
    const std::string service_urls =
        nats.var("NATS_N3_MQTT") + "," + nats.var("NATS_N2_MQTT") + "," + nats.var("NATS_N1_MQTT");
    Cloud cloud(tmp.path(), service_urls);
    ASSERT_TRUE(cloud.up()) << cloud.log();
    ASSERT_TRUE(cloud.wait_for("mqtt: connected to", 30)) << cloud.log();
    const Clip clip = make_clip(tmp.path());
    // An order that changes nothing, so that no motion is made up.
    Process camsim(camsim_args(cloud, urls, tmp.path() + "/camera", clip.path, kDevice,
                               {"--duration", "50", "--event-duration", "6", "--slice", "4",
                                "--silence", "2", "--order", "49:event"}),
                   tmp.path() + "/camsim.log");
    ASSERT_TRUE(camsim.wait_for("mqtt connected to", 30)) << camsim.output();
    const std::string first = last_broker(camsim.output());
    const int node = nats.node_at(first);
    ASSERT_NE(node, 0) << first << "\n" << camsim.output();

    ASSERT_TRUE(nats.kill_node(node));
    const e2e::Result trigger = cloud.admin({"trigger", kDevice, "pic_v", "--duration", "6"});
    ASSERT_EQ(trigger.status, 0) << trigger.out;
    ASSERT_TRUE(camsim.wait_for("mqtt connected to", 40, 2)) << camsim.output();
    const std::string second = last_broker(camsim.output());
    EXPECT_NE(nats.node_at(second), 0) << second;
    EXPECT_NE(second, first);

    ASSERT_EQ(camsim.wait(kRunTimeoutS), 0) << camsim.output();
    EXPECT_NE(camsim.output().find("1 remote triggers received (0 scheduled)"), std::string::npos)
        << camsim.output() << cloud.log();
    ASSERT_EQ(cloud.stop(), 0);
    vexo_cloud::Options options;
    options.data_dir = cloud.data();
    const auto alarms = vexo_cloud::Service(options).alarms(kDevice);
    ASSERT_EQ(alarms.size(), 1u) << camsim.output();
    EXPECT_TRUE(alarms[0].with_picture);
}

} // namespace
} // namespace integration
