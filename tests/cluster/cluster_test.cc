// The whole stack of scripts/cluster.sh (PostgreSQL, a Ceph gateway, three NATS nodes, two
// vexo-cloud instances behind HAProxy) through failures: an instance killed in the middle of
// a recording, and PostgreSQL or the S3 gateway stopped for a while. The camera talks to HAProxy
// only; in the end every file it made is in the shared stores and vexo-media verifies them. One
// cluster serves every case of this binary (the gateway takes seconds to start).
#include <gtest/gtest.h>
#include <libpq-fe.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <regex>
#include <sstream>
#include <thread>

#include "e2e_support.h"
#include "processes.h"

namespace {

const std::string kScript = VEXO_CLUSTER_SCRIPT;
const std::string kPgScript = VEXO_CLUSTER_PG_SCRIPT;
const std::string kCephScript = VEXO_CLUSTER_CEPH_SCRIPT;
const std::string kBuildDir = VEXO_CLUSTER_BUILD_DIR;
const std::string kCamsim = VEXO_CLUSTER_CAMSIM;
const std::string kMedia = VEXO_CLUSTER_MEDIA;
constexpr double kWaitS = 120;
/// 2026-01-01 10:05:00 UTC: far from the half hours at which all-time recordings split.
const std::string kMorning = "1767261900";

/// The programs the cluster needs; the first one missing, or empty.
std::string missing_program() {
    for (const char *path :
         {"/usr/sbin/haproxy", "/usr/bin/radosgw", "/usr/bin/ceph-mon", "/usr/bin/ceph-osd",
          "/usr/lib/postgresql/15/bin/initdb", "/usr/sbin/nats-server"}) {
        if (::access(path, X_OK) != 0) {
            return path;
        }
    }
    return "";
}

/// One number an SQL query answers; -1 when it failed.
long long query_number(const std::string &url, const std::string &sql) {
    PGconn *conn = PQconnectdb(url.c_str());
    long long value = -1;
    if (PQstatus(conn) == CONNECTION_OK) {
        PGresult *result = PQexec(conn, sql.c_str());
        if (PQresultStatus(result) == PGRES_TUPLES_OK && PQntuples(result) == 1) {
            value = std::atoll(PQgetvalue(result, 0, 0));
        }
        PQclear(result);
    }
    PQfinish(conn);
    return value;
}

/// The number after `before` in the last line of text that holds it; -1 when none.
long long number_after(const std::string &text, const std::string &before) {
    const size_t at = text.rfind(before);
    return at == std::string::npos ? -1 : std::atoll(text.c_str() + at + before.size());
}

/// The media files of the recordings vexo-media verify found sound, summed.
long long verified_files(const std::string &verify_output) {
    static const std::regex kLine(R"((?:^|\n)\S+ \d+: (\d+) files, [^\n]*: ok(?=\n|$))");
    long long files = 0;
    for (std::sregex_iterator it(verify_output.begin(), verify_output.end(), kLine), end; it != end;
         ++it) {
        files += std::stoll((*it)[1]);
    }
    return files;
}

/// The file's contents; empty when it cannot be read.
std::string read_text(const std::string &path) {
    std::ifstream in(path);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

/// Polls pred every 50 ms for at most timeout_s; whether it came true.
template <typename Pred> bool eventually(double timeout_s, Pred pred) {
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::duration<double>(timeout_s);
    while (!pred()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return true;
}

class ClusterTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        if (!missing_program().empty()) {
            return;
        }
        tmp_ = new e2e::TempDir();
        // As root, PostgreSQL runs as its own user, which must reach its directory in here.
        std::filesystem::permissions(tmp_->path(), std::filesystem::perms::others_exec,
                                     std::filesystem::perm_options::add);
        dir_ = tmp_->path() + "/cluster";
        const e2e::Result r = e2e::run({kScript, "up", "--dir", dir_, "--build", kBuildDir});
        up_output_ = r.out;
        std::ifstream env(dir_ + "/cluster.env");
        for (std::string line; std::getline(env, line);) {
            const size_t eq = line.find('=');
            if (eq == std::string::npos) {
                continue;
            }
            std::string value = line.substr(eq + 1);
            if (value.size() >= 2 && value.front() == '"' && value.back() == '"') {
                value = value.substr(1, value.size() - 2);
            }
            vars_[line.substr(0, eq)] = value;
        }
        up_ = r.status == 0 && vars_.count("VEXO_CLUSTER_URL") == 1;
        if (up_) {
            clip_ = e2e::make_clip(tmp_->path(), "clip.mkv", 320, 240, 20, 40, 6, "pcm_mulaw", 300);
        }
    }
    static void TearDownTestSuite() {
        if (tmp_ != nullptr) {
            (void)e2e::run({kScript, "down", "--dir", dir_});
            delete tmp_;
            tmp_ = nullptr;
        }
    }
    void SetUp() override {
        const std::string missing = missing_program();
        if (!missing.empty()) {
            GTEST_SKIP() << missing << " is not installed (scripts/install-deps.sh)";
        }
        ASSERT_TRUE(up_) << up_output_;
    }

    static std::string var(const std::string &name) {
        const auto it = vars_.find(name);
        return it == vars_.end() ? "" : it->second;
    }
    static std::vector<std::string> words(const std::string &text) {
        std::istringstream in(text);
        std::vector<std::string> out;
        for (std::string w; in >> w;) {
            out.push_back(w);
        }
        return out;
    }
    /// A camera recording all the time through HAProxy, at four times real time, with its
    /// progress lines (one every 10 camera seconds) and the kit's debug lines.
    std::unique_ptr<e2e::Process> camera(const std::string &device, const std::string &seconds) {
        const std::vector<std::string> argv = {kCamsim,         "-v",
                                               "--input",       clip_,
                                               "--data",        tmp_->path() + "/" + device,
                                               "--device",      device,
                                               "--cloud",       var("VEXO_CLUSTER_URL"),
                                               "--mqtt",        var("NATS_MQTT_URLS"),
                                               "--admin-token", var("VEXO_ADMIN_TOKEN"),
                                               "--mode",        "alltime",
                                               "--start",       kMorning,
                                               "--speed",       "4",
                                               "--duration",    seconds,
                                               "--slice",       "4"};
        return std::make_unique<e2e::Process>(argv, tmp_->path() + "/" + device + ".log");
    }
    /// The camera ended well with an empty spool, every file it made was uploaded and is in
    /// the shared database once, and vexo-media verifies the recording from the stores.
    void expect_nothing_lost(e2e::Process &camsim, const std::string &device) {
        ASSERT_EQ(camsim.wait(kWaitS * 2), 0) << camsim.output();
        const std::string out = camsim.output();
        EXPECT_NE(out.find("\nspool 0 items, 0 B"), std::string::npos) << out;
        EXPECT_NE(out.find(" sent, 0 dropped\n"), std::string::npos) << out;
        const long long uploads = number_after(out, "\nuploads: ");
        ASSERT_GT(uploads, 0) << out;
        // Every file the module made (its debug line names each new one) was delivered.
        EXPECT_EQ(static_cast<long long>(e2e::occurrences(out, " new media file name ")), uploads)
            << out;
        const std::string of_device = " FROM media WHERE device = '" + device + "'";
        EXPECT_EQ(query_number(var("VEXO_DB_URL"), "SELECT count(*)" + of_device), uploads) << out;
        EXPECT_EQ(query_number(var("VEXO_DB_URL"), "SELECT count(DISTINCT name)" + of_device),
                  uploads);
        const e2e::Result verify =
            e2e::run({kMedia, "verify", "--data", tmp_->path() + "/media-" + device, "--db",
                      var("VEXO_DB_URL"), "--media", var("VEXO_MEDIA_URL"), "--device", device},
                     {"AWS_ACCESS_KEY_ID=" + var("AWS_ACCESS_KEY_ID"),
                      "AWS_SECRET_ACCESS_KEY=" + var("AWS_SECRET_ACCESS_KEY")});
        EXPECT_EQ(verify.status, 0) << verify.out;
        EXPECT_EQ(verified_files(verify.out), uploads) << verify.out;
    }

    void outage(const std::string &device, const std::vector<std::string> &stop,
                const std::vector<std::string> &start);

    static e2e::TempDir *tmp_;
    static std::string dir_;
    static std::string up_output_;
    static bool up_;
    static std::map<std::string, std::string> vars_;
    static std::string clip_;
};

e2e::TempDir *ClusterTest::tmp_ = nullptr;
std::string ClusterTest::dir_;
std::string ClusterTest::up_output_;
bool ClusterTest::up_ = false;
std::map<std::string, std::string> ClusterTest::vars_;
std::string ClusterTest::clip_;

TEST_F(ClusterTest, AnInstanceKilledMidRecordingLosesNothing) {
    const std::string device = "kill-cam";
    auto camsim = camera(device, "60");
    const std::vector<std::string> pids = words(var("VEXO_CLOUD_PIDS"));
    ASSERT_GE(pids.size(), 2u) << up_output_;
    // The first instance to have stored one of the camera's files is the one that dies.
    const std::string upload = "PUT /v1/devices/" + device + "/media/";
    size_t victim = pids.size();
    ASSERT_TRUE(eventually(kWaitS, [&] {
        for (size_t i = 0; i < pids.size(); ++i) {
            if (read_text(dir_ + "/cloud" + std::to_string(i + 1) + ".log").find(upload) !=
                std::string::npos) {
                victim = i;
                return true;
            }
        }
        return false;
    })) << camsim->output();
    ASSERT_EQ(::kill(static_cast<pid_t>(std::stol(pids[victim])), SIGKILL), 0);
    // The survivor goes on storing the camera's files.
    const std::string survivor =
        dir_ + "/cloud" + std::to_string((victim + 1) % pids.size() + 1) + ".log";
    const size_t before = e2e::occurrences(read_text(survivor), upload);
    EXPECT_TRUE(eventually(kWaitS, [&] {
        return e2e::occurrences(read_text(survivor), upload) >= before + 3;
    })) << camsim->output();
    expect_nothing_lost(*camsim, device);
}

/// A shared store away for about 20 camera seconds in the middle of a recording: stop runs
/// once the camera has stored files, start once it has spooled 20 s; then nothing is lost.
void ClusterTest::outage(const std::string &device, const std::vector<std::string> &stop,
                         const std::vector<std::string> &start) {
    auto camsim = camera(device, "70");
    const std::string progress = "s/70s] ";
    ASSERT_TRUE(camsim->wait_for(progress, kWaitS, 2)) << camsim->output();
    const e2e::Result stopped = e2e::run(stop);
    ASSERT_EQ(stopped.status, 0) << stopped.out;
    // The service answers the camera's next request with 503 through HAProxy, and the
    // camera keeps it and what follows in its spool.
    ASSERT_TRUE(camsim->wait_for("spool: cloud unreachable (HTTP 503)", kWaitS))
        << camsim->output();
    const size_t seen = e2e::occurrences(camsim->output(), progress);
    ASSERT_TRUE(camsim->wait_for(progress, kWaitS, seen + 2)) << camsim->output();
    const e2e::Result started = e2e::run(start);
    ASSERT_EQ(started.status, 0) << started.out;
    expect_nothing_lost(*camsim, device);
}

TEST_F(ClusterTest, PostgresStoppedForTwentyCameraSecondsLosesNothing) {
    const std::string db = var("VEXO_DB_URL");
    const std::string port = db.substr(db.rfind(':') + 1, db.rfind('/') - db.rfind(':') - 1);
    outage("pg-cam", {kPgScript, "stop", dir_ + "/pg"}, {kPgScript, "start", dir_ + "/pg", port});
}

TEST_F(ClusterTest, GatewayStoppedForTwentyCameraSecondsLosesNothing) {
    outage("s3-cam", {kCephScript, "gateway-stop", "--dir", dir_ + "/ceph"},
           {kCephScript, "gateway-start", "--dir", dir_ + "/ceph"});
}

} // namespace
