// A one-node Ceph S3 gateway for the tests, on free loopback ports, from scripts/ceph.sh.
#ifndef VEXO_TESTS_STORE_CEPH_GATEWAY_H
#define VEXO_TESTS_STORE_CEPH_GATEWAY_H

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "s3_client.h"
#include "tests/support/temp_dir.h"

namespace vexo_test {

/// The gateway of a test program: started by scripts/ceph.sh at its first use, stopped when
/// the program's tests end.
class Gateway {
  public:
    static Gateway &get() {
        static Gateway gateway;
        started_once() = true;
        return gateway;
    }
    /// Whether a test asked for the gateway (the file store's cases do not).
    static bool &started_once() {
        static bool started = false;
        return started;
    }
    bool available() const { return !endpoint_.empty(); }
    const std::string &endpoint() const { return endpoint_; }
    /// The S3 keys as NAME=value, for a program's environment.
    std::vector<std::string> key_environment() const {
        return {"AWS_ACCESS_KEY_ID=" + access_, "AWS_SECRET_ACCESS_KEY=" + secret_};
    }
    const std::string &why_not() const { return why_not_; }
    /// Whether Ceph is installed: without it the S3 cases are skipped; with it a gateway that
    /// does not come up fails them.
    bool installed() const { return installed_; }
    vexo_cloud::S3Config config(const std::string &bucket) const {
        vexo_cloud::S3Config config;
        config.endpoint = endpoint_;
        config.bucket = bucket;
        config.access_key = access_;
        config.secret_key = secret_;
        return config;
    }
    void stop() {
        if (started_) {
            std::system(("bash " VEXO_CEPH_SCRIPT " down --dir " + dir_.path() + " >/dev/null 2>&1")
                            .c_str());
            started_ = false;
        }
    }

  private:
    Gateway() : dir_("vexo-ceph") {
        if (std::system("command -v radosgw >/dev/null && command -v ceph-mon >/dev/null && "
                        "command -v ceph-osd >/dev/null") != 0) {
            why_not_ = "ceph-mon, ceph-osd or radosgw is not installed (scripts/install-deps.sh)";
            return;
        }
        installed_ = true;
        started_ = true;
        const std::string log = dir_.path() + "/up.log";
        if (std::system(("bash " VEXO_CEPH_SCRIPT " up --dir " + dir_.path() + " >" + log + " 2>&1")
                            .c_str()) != 0) {
            std::ifstream in(log);
            std::ostringstream text;
            text << in.rdbuf();
            why_not_ = "scripts/ceph.sh up failed: " + text.str();
            return;
        }
        std::ifstream env(dir_.path() + "/s3.env");
        for (std::string line; std::getline(env, line);) {
            const std::string value = line.substr(line.find('=') + 1);
            if (line.rfind("VEXO_S3_ENDPOINT=", 0) == 0) {
                endpoint_ = value;
            } else if (line.rfind("AWS_ACCESS_KEY_ID=", 0) == 0) {
                access_ = value;
            } else if (line.rfind("AWS_SECRET_ACCESS_KEY=", 0) == 0) {
                secret_ = value;
            }
        }
    }

    vexo_test::TempDir dir_;
    bool started_ = false;
    std::string endpoint_, access_, secret_, why_not_;
    bool installed_ = false;
};

/// Stops the gateway after the last test.
class GatewayEnvironment : public ::testing::Environment {
  public:
    void TearDown() override {
        if (Gateway::started_once()) {
            Gateway::get().stop();
        }
    }
};
inline const auto *const kGatewayEnvironment =
    ::testing::AddGlobalTestEnvironment(new GatewayEnvironment);

} // namespace vexo_test

#endif
