// The libcurl transport against a local HTTP server: what a request carries, what comes back,
// and the failures that must end as "no answer" (status 0) rather than a hang or a crash.
#include <gtest/gtest.h>

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "curl_transport.h"
#include "local_http_server.h"
#include "test_certificate.h"
#include "tests/support/temp_dir.h"
#include "unused_port.h"

namespace {

using hostkit::CloudRequest;
using hostkit::CloudResponse;
using hostkit::CurlTransport;
using hostkit::CurlTransportConfig;

/// What the server saw of one request.
struct Seen {
    std::string method;
    std::string target; // path and query as sent
    std::string path;
    std::map<std::string, std::string, httplib::detail::ci> headers;
    std::string body;
};

/// A server that records every request and answers through a replaceable function.
class Recorder {
  public:
    using Answer = std::function<void(const httplib::Request &, httplib::Response &)>;

    std::unique_ptr<httplib::Server> make_server() {
        auto server = std::make_unique<httplib::Server>();
        const auto handle = [this](const httplib::Request &req, httplib::Response &res) {
            Answer answer;
            {
                std::lock_guard<std::mutex> lock(mu_);
                seen_.push_back({req.method,
                                 req.target,
                                 req.path,
                                 {req.headers.begin(), req.headers.end()},
                                 req.body});
                answer = answer_;
            }
            answer(req, res);
        };
        server->Get(".*", handle);
        server->Post(".*", handle);
        server->Put(".*", handle);
        return server;
    }
    void set_answer(Answer answer) {
        std::lock_guard<std::mutex> lock(mu_);
        answer_ = std::move(answer);
    }
    std::vector<Seen> seen() {
        std::lock_guard<std::mutex> lock(mu_);
        return seen_;
    }

  private:
    std::mutex mu_;
    std::vector<Seen> seen_;
    Answer answer_ = [](const httplib::Request &, httplib::Response &res) {
        res.set_content("{}", "application/json");
    };
};

CloudRequest request(const char *method, const char *path, std::string body = "") {
    CloudRequest r;
    r.method = method;
    r.path = path;
    r.body = std::move(body);
    r.headers["x-vexo-device"] = "cam-7";
    return r;
}

std::unique_ptr<CurlTransport> transport_for(const std::string &url, size_t limit = 1 << 20) {
    CurlTransportConfig config;
    config.base_url = url;
    config.max_answer_bytes = limit;
    std::string error;
    auto t = CurlTransport::create(config, &error);
    EXPECT_NE(t, nullptr) << error;
    return t;
}

class CurlTransportTest : public ::testing::Test {
  protected:
    void SetUp() override {
        server_ = std::make_unique<vexo_test::LocalHttpServer>(recorder_.make_server());
        ASSERT_TRUE(server_->running());
        transport_ = transport_for(server_->url());
        ASSERT_NE(transport_, nullptr);
    }

    /// Holds a handler until released; declared before the server, so it outlives the
    /// server's threads.
    struct Gate {
        std::mutex mu;
        std::condition_variable cv;
        bool open = false;
        void wait() {
            std::unique_lock<std::mutex> lock(mu);
            cv.wait_for(lock, std::chrono::seconds(10), [this] { return open; });
        }
        void release() {
            {
                std::lock_guard<std::mutex> lock(mu);
                open = true;
            }
            cv.notify_all();
        }
    };

    Gate gate_;
    Recorder recorder_;
    std::unique_ptr<vexo_test::LocalHttpServer> server_;
    std::unique_ptr<CurlTransport> transport_;
};

TEST_F(CurlTransportTest, RequestsCarryPathQueryHeadersAndBodyAndBringBackTheAnswer) {
    recorder_.set_answer([](const httplib::Request &, httplib::Response &res) {
        res.status = 201;
        res.set_content(R"({"success":true})", "application/json; charset=utf-8");
    });
    CloudRequest req = request("POST", "/v1/api/a.b.start", R"({"startTime":5})");
    req.query = "v=1.0";
    req.headers["authorization"] = "Bearer t0k";
    req.headers["content-type"] = "application/json";
    const CloudResponse resp = transport_->exchange(req);
    EXPECT_EQ(resp.status, 201);
    EXPECT_EQ(resp.content_type, "application/json; charset=utf-8");
    EXPECT_EQ(resp.body, R"({"success":true})");

    const std::vector<Seen> seen = recorder_.seen();
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].method, "POST");
    EXPECT_EQ(seen[0].target, "/v1/api/a.b.start?v=1.0");
    EXPECT_EQ(seen[0].body, R"({"startTime":5})");
    EXPECT_EQ(seen[0].headers.at("x-vexo-device"), "cam-7");
    EXPECT_EQ(seen[0].headers.at("authorization"), "Bearer t0k");
    EXPECT_EQ(seen[0].headers.at("content-type"), "application/json");
    EXPECT_EQ(seen[0].headers.at("content-length"), "15");

    // A base URL with a prefix and a trailing slash puts the prefix before every path.
    auto prefixed = transport_for(server_->url() + "/cloud/");
    ASSERT_NE(prefixed, nullptr);
    EXPECT_EQ(prefixed->base_url(), server_->url() + "/cloud");
    EXPECT_EQ(prefixed->exchange(request("GET", "/v1/devices/cam-7/storage/config")).status, 201);
    EXPECT_EQ(recorder_.seen().back().target, "/cloud/v1/devices/cam-7/storage/config");

    // A GET without a query sends none, and every status comes back as it is.
    for (const int status : {404, 410, 503}) {
        recorder_.set_answer([status](const httplib::Request &, httplib::Response &res) {
            res.status = status;
            res.set_content(std::to_string(status), "text/plain");
        });
        const CloudResponse got = transport_->exchange(request("GET", "/v1/devices/cam-7/x"));
        EXPECT_EQ(got.status, status);
        EXPECT_EQ(got.body, std::to_string(status));
        EXPECT_EQ(recorder_.seen().back().target, "/v1/devices/cam-7/x");
    }
}

TEST_F(CurlTransportTest, PutCarriesABinaryBodyByteForByte) {
    // The size of a ten-second slice at 2 Mbit/s: big enough that libcurl would otherwise
    // ask for "100-continue" first.
    std::string media;
    for (int i = 0; i < 2500000; ++i) {
        media += static_cast<char>((i * 7 + i / 256) & 0xff); // every byte value, NULs included
    }
    ASSERT_NE(media.find('\0'), std::string::npos);
    CloudRequest req = request("PUT", "/v1/devices/cam-7/media/1800000000_0000.media", media);
    req.headers["content-type"] = "media/av";
    req.timeout_s = 60;
    EXPECT_EQ(transport_->exchange(req).status, 200);

    // An empty body is a body of zero bytes, and no content type is made up for it.
    const CloudRequest empty = request("PUT", "/v1/devices/cam-7/media/empty.media");
    EXPECT_EQ(transport_->exchange(empty).status, 200);

    const std::vector<Seen> seen = recorder_.seen();
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[0].method, "PUT");
    EXPECT_EQ(seen[0].path, "/v1/devices/cam-7/media/1800000000_0000.media");
    EXPECT_EQ(seen[0].headers.at("content-type"), "media/av");
    EXPECT_EQ(seen[0].body.size(), media.size());
    EXPECT_TRUE(seen[0].body == media) << "the body arrived altered";
    EXPECT_EQ(seen[0].headers.count("expect"), 0u) << "no 100-continue round trip";
    EXPECT_EQ(seen[1].body, "");
    EXPECT_EQ(seen[1].headers.at("content-length"), "0");
    EXPECT_EQ(seen[1].headers.count("content-type"), 0u);
}

TEST_F(CurlTransportTest, ConcurrentRequestsEachGetTheirOwnAnswer) {
    recorder_.set_answer([](const httplib::Request &req, httplib::Response &res) {
        res.set_content(req.body, "text/plain");
    });
    constexpr int kThreads = 4;
    constexpr int kEach = 10;
    std::vector<std::thread> threads;
    std::vector<int> wrong(kThreads, 0);
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([this, t, &wrong] {
            for (int i = 0; i < kEach; ++i) {
                const std::string body = std::to_string(t) + "/" + std::to_string(i);
                const CloudResponse resp = transport_->exchange(request("POST", "/echo", body));
                if (resp.status != 200 || resp.body != body) {
                    ++wrong[t];
                }
            }
        });
    }
    for (std::thread &t : threads) {
        t.join();
    }
    for (int t = 0; t < kThreads; ++t) {
        EXPECT_EQ(wrong[t], 0) << "thread " << t;
    }
    EXPECT_EQ(recorder_.seen().size(), static_cast<size_t>(kThreads * kEach));
}

TEST_F(CurlTransportTest, NoListenerGivesStatusZero) {
    const int port = vexo_test::unused_port();
    ASSERT_GT(port, 0);
    auto t = transport_for("http://127.0.0.1:" + std::to_string(port));
    ASSERT_NE(t, nullptr);
    const CloudResponse resp = t->exchange(request("GET", "/v1/devices/cam-7/storage/config"));
    EXPECT_EQ(resp.status, 0);
    EXPECT_EQ(resp.body, "");

    // The caller that wants the reason gets it instead of a log line.
    std::string error;
    EXPECT_EQ(t->exchange(request("GET", "/x"), &error).status, 0);
    EXPECT_NE(error.find("GET http://127.0.0.1:" + std::to_string(port) + "/x failed"),
              std::string::npos)
        << error;
    EXPECT_EQ(transport_->exchange(request("GET", "/x"), &error).status, 200);
    EXPECT_EQ(error, "");
}

TEST_F(CurlTransportTest, ASlowServerEndsAtTheTimeLimitOrWhenCancelled) {
    recorder_.set_answer([this](const httplib::Request &, httplib::Response &res) {
        gate_.wait();
        res.set_content("late", "text/plain");
    });
    // Cancelled before the time limit; then with a limit of 1 s and no cancel.
    std::atomic<bool> cancel{false};
    CloudRequest req = request("GET", "/slow");
    req.timeout_s = 30;
    req.cancel = &cancel;
    std::thread canceller([&] {
        for (int i = 0; i < 2000 && recorder_.seen().empty(); ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        cancel = true;
    });
    std::string error;
    EXPECT_EQ(transport_->exchange(req, &error).status, 0);
    canceller.join();
    EXPECT_NE(error.find("GET " + server_->url() + "/slow: cancelled"), std::string::npos) << error;
    req.timeout_s = 1;
    req.cancel = nullptr;
    const CloudResponse resp = transport_->exchange(req);
    gate_.release();
    EXPECT_EQ(resp.status, 0);
    EXPECT_EQ(resp.body, "");
}

TEST_F(CurlTransportTest, AnAnswerOverTheLimitIsRefusedWhetherItsLengthIsKnownOrNot) {
    constexpr size_t kLimit = 64 * 1024;
    auto t = transport_for(server_->url(), kLimit);
    ASSERT_NE(t, nullptr);
    // "/l/<n>": n bytes with their length announced; "/c/<n>": chunked, no length.
    recorder_.set_answer([](const httplib::Request &req, httplib::Response &res) {
        const size_t n = std::stoul(req.path.substr(3));
        if (req.path[1] == 'l') {
            res.set_content(std::string(n, 'x'), "text/plain");
            return;
        }
        res.set_chunked_content_provider("text/plain", [n](size_t offset, httplib::DataSink &sink) {
            if (offset >= n) {
                sink.done();
                return true;
            }
            const std::string chunk(std::min<size_t>(16 * 1024, n - offset), 'y');
            return sink.write(chunk.data(), chunk.size());
        });
    });
    for (const char *kind : {"/l/", "/c/"}) {
        for (const size_t n : {kLimit, kLimit + 1, size_t{8} << 20}) {
            const std::string path = kind + std::to_string(n);
            SCOPED_TRACE(path);
            const CloudResponse answer = t->exchange(request("GET", path.c_str()));
            EXPECT_EQ(answer.status, n <= kLimit ? 200 : 0);
            EXPECT_EQ(answer.body.size(), n <= kLimit ? n : 0u);
        }
    }
}

TEST_F(CurlTransportTest, AMalformedRequestIsNotSent) {
    CloudRequest injected = request("GET", "/v1/devices/cam-7/storage/config");
    injected.headers["x-vexo-device"] = "cam-7\r\nx-evil: 1";
    EXPECT_EQ(transport_->exchange(injected).status, 0);
    EXPECT_EQ(transport_->exchange(request("GET", "no-slash")).status, 0);
    EXPECT_EQ(transport_->exchange(request("GET", "/a b")).status, 0);
    EXPECT_EQ(transport_->exchange(request("G T", "/x")).status, 0);
    EXPECT_TRUE(recorder_.seen().empty());
}

TEST(CurlTransportCreate, AcceptsHttpAndHttpsUrlsOnlyAndAReadableCaFileWithHttps) {
    for (const char *good :
         {"http://127.0.0.1:8080", "http://127.0.0.1:8080/", "HTTP://Cloud.Example",
          "https://cloud.example.com/prefix", "http://[::1]:9000"}) {
        std::string error;
        CurlTransportConfig config;
        config.base_url = good;
        EXPECT_NE(CurlTransport::create(config, &error), nullptr) << good << ": " << error;
    }
    for (const char *bad :
         {"", "127.0.0.1:8080", "ftp://host", "file:///etc/passwd", "http://", "http://:8080",
          "http://host/p?q=1", "http://host/#x", "http://user@host", "http://ho st",
          "http://host:99999", "mqtt://127.0.0.1:1883"}) {
        std::string error;
        CurlTransportConfig config;
        config.base_url = bad;
        EXPECT_EQ(CurlTransport::create(config, &error), nullptr) << bad;
        EXPECT_FALSE(error.empty()) << bad;
    }

    // A CA file must be readable and goes with https only.
    vexo_test::TempDir dir("vexo-curl-ca");
    std::string error;
    ASSERT_TRUE(vexo_test::write_test_certificate(dir.path(), &error)) << error;
    CurlTransportConfig config;
    config.base_url = "https://127.0.0.1:1";
    config.ca_file = dir.path() + "/server.crt";
    EXPECT_NE(CurlTransport::create(config, &error), nullptr) << error;
    config.ca_file = dir.path() + "/missing.crt";
    EXPECT_EQ(CurlTransport::create(config, &error), nullptr);
    EXPECT_NE(error.find("missing.crt"), std::string::npos) << error;
    config.ca_file = dir.path() + "/server.crt";
    config.base_url = "http://127.0.0.1:1";
    EXPECT_EQ(CurlTransport::create(config, &error), nullptr);
}

TEST(CurlTransportTls, VerifiesTheServerAgainstTheCaFile) {
    vexo_test::TempDir dir("vexo-curl-tls");
    std::string error;
    ASSERT_TRUE(vexo_test::write_test_certificate(dir.path(), &error)) << error;
    auto tls = std::make_unique<httplib::SSLServer>((dir.path() + "/server.crt").c_str(),
                                                    (dir.path() + "/server.key").c_str());
    ASSERT_TRUE(tls->is_valid());
    tls->Get("/v1/devices/cam-7/storage/config",
             [](const httplib::Request &, httplib::Response &res) {
                 res.set_content(R"({"storeMode":"event"})", "application/json");
             });
    vexo_test::LocalHttpServer server(std::move(tls));
    ASSERT_TRUE(server.running());

    CurlTransportConfig config;
    config.base_url = server.url("https");
    config.ca_file = dir.path() + "/server.crt";
    auto trusted = CurlTransport::create(config, &error);
    ASSERT_NE(trusted, nullptr) << error;
    const CloudResponse ok = trusted->exchange(request("GET", "/v1/devices/cam-7/storage/config"));
    EXPECT_EQ(ok.status, 200);
    EXPECT_EQ(ok.body, R"({"storeMode":"event"})");

    // The system's authorities do not know this certificate: no answer.
    config.ca_file.clear();
    auto untrusting = CurlTransport::create(config, &error);
    ASSERT_NE(untrusting, nullptr) << error;
    EXPECT_EQ(untrusting->exchange(request("GET", "/v1/devices/cam-7/storage/config")).status, 0);
}

} // namespace
