// Fuzz target: the cloud service's request handling, from request bytes to answer.
//
// Input, split on line ends ("\n"):
//   line 1: "<METHOD> <path>[?<query>]"
//   then header lines "<name>: <value>" (names taken in lower case) up to an empty line,
//   the rest: the body.
// The service runs on a temporary data directory made once per process, with a fixed clock
// and limits that keep its files small; its state carries over from input to input. Every
// answer must be an HTTP status, and a refusal must be a JSON object with an "error" text.
#include <unistd.h>

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

#include "cloud_service.h"
#include "json_fields.h"

namespace {

std::unique_ptr<vexo_cloud::Service> g_service;
std::string g_dir;

void fail(const std::string &what) {
    (void)std::fprintf(stderr, "service_request_fuzz: %s\n", what.c_str());
    std::abort();
}

void stop_service() {
    g_service.reset();
    std::error_code ec;
    std::filesystem::remove_all(g_dir, ec);
}

void start_service() {
    char pattern[] = "/tmp/vexo-fuzz-service-XXXXXX";
    if (mkdtemp(pattern) == nullptr) {
        fail("cannot make a temporary directory");
    }
    g_dir = pattern;
    vexo_cloud::Options o;
    o.data_dir = g_dir + "/data";
    o.clock = [] { return uint32_t{1800000000}; };
    o.log = [](const std::string &) {};
    o.max_body = 1 << 20;
    o.max_devices = 16;
    o.default_limits.max_files = 64;
    o.default_limits.max_bytes = 1 << 20;
    o.default_limits.max_alarms_per_day = 64;
    g_service = std::make_unique<vexo_cloud::Service>(std::move(o));
    std::string error;
    if (!g_service->set_order("cam1", vexo_cloud::OrderChange{}, &error)) {
        fail("cannot add the first device: " + error);
    }
    (void)std::atexit(stop_service);
}

/// The next line of text from *pos (without its "\n"); *pos moves past it.
std::string next_line(const std::string &text, size_t *pos) {
    const size_t end = text.find('\n', *pos);
    std::string line = text.substr(*pos, end == std::string::npos ? std::string::npos : end - *pos);
    *pos = end == std::string::npos ? text.size() : end + 1;
    return line;
}

vexo_cloud::Request request_from(const std::string &text) {
    vexo_cloud::Request request;
    size_t pos = 0;
    const std::string first = next_line(text, &pos);
    const size_t space = first.find(' ');
    request.method = first.substr(0, space);
    if (space != std::string::npos) {
        const std::string target = first.substr(space + 1);
        const size_t question = target.find('?');
        request.path = target.substr(0, question);
        if (question != std::string::npos) {
            request.query = target.substr(question + 1);
        }
    }
    while (pos < text.size()) {
        const std::string line = next_line(text, &pos);
        if (line.empty()) {
            break;
        }
        const size_t colon = line.find(':');
        std::string name = line.substr(0, colon);
        for (char &c : name) {
            c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        }
        std::string value = colon == std::string::npos ? "" : line.substr(colon + 1);
        value.erase(0, value.find_first_not_of(' '));
        request.headers[name] = value;
    }
    request.body = text.substr(pos);
    return request;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (!g_service) {
        start_service();
    }
    const vexo_cloud::Request request =
        request_from(std::string(reinterpret_cast<const char *>(data), size));
    const vexo_cloud::Response response = g_service->handle(request);
    if (response.status < 100 || response.status > 599) {
        fail("answer status " + std::to_string(response.status));
    }
    if (response.status >= 400 && response.status <= 499) {
        const std::optional<vexo_cloud::Json> body = vexo_cloud::parse_object(response.body);
        std::string error;
        if (!body || !vexo_cloud::get_text(*body, "error", &error) || error.empty()) {
            fail("a refusal without an error text: " + std::to_string(response.status) + " " +
                 response.body);
        }
    }
    if (!response.body_file.empty() && response.body_file_temporary) {
        (void)unlink(response.body_file.c_str());
    }
    return 0;
}
