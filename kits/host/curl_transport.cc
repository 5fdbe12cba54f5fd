// The libcurl transport: one easy handle per request, so requests on different threads share
// nothing, and a request that failed on a connection is never silently sent again on another.
#include "curl_transport.h"

#include <curl/curl.h>

#include <cctype>
#include <fstream>
#include <mutex>

#include "host_internal.h"

namespace hostkit {
namespace {

constexpr uint32_t kDefaultTimeoutS = 30;

/// curl_global_init is called once per process and never undone: other users of libcurl in
/// the process may still need it.
bool global_init(std::string *error) {
    static std::once_flag once;
    static CURLcode code = CURLE_OK;
    std::call_once(once, [] { code = curl_global_init(CURL_GLOBAL_DEFAULT); });
    if (code != CURLE_OK) {
        *error = std::string("libcurl cannot be initialised: ") + curl_easy_strerror(code);
        return false;
    }
    return true;
}

bool starts_with_nocase(const std::string &text, const char *prefix) {
    for (size_t i = 0; prefix[i] != '\0'; ++i) {
        if (i >= text.size() || std::tolower(static_cast<unsigned char>(text[i])) !=
                                    static_cast<unsigned char>(prefix[i])) {
            return false;
        }
    }
    return true;
}

bool has_control_or_space(const std::string &text) {
    for (char c : text) {
        const unsigned char u = static_cast<unsigned char>(c);
        if (u <= 0x20 || u == 0x7f) {
            return true;
        }
    }
    return false;
}

/// Accepts "http(s)://host[:port][/prefix]" without user, query or fragment; lets libcurl's
/// own parser judge the host and port.
bool check_base_url(const std::string &url, std::string *error) {
    const bool https = starts_with_nocase(url, "https://");
    if (!https && !starts_with_nocase(url, "http://")) {
        *error = "cloud URL '" + url + "' must start with http:// or https://";
        return false;
    }
    if (has_control_or_space(url)) {
        *error = "cloud URL contains spaces or control characters";
        return false;
    }
    const size_t authority = https ? 8 : 7;
    const size_t authority_end = url.find('/', authority);
    const std::string host_port = url.substr(authority, authority_end - authority);
    if (host_port.empty() || host_port[0] == ':') {
        *error = "cloud URL '" + url + "' has no host";
        return false;
    }
    if (url.find_first_of("?#") != std::string::npos || host_port.find('@') != std::string::npos) {
        *error = "cloud URL '" + url + "' must not carry a user, query or fragment";
        return false;
    }
    CURLU *parsed = curl_url();
    if (parsed == nullptr) {
        *error = "out of memory";
        return false;
    }
    const CURLUcode rc = curl_url_set(parsed, CURLUPART_URL, url.c_str(), 0);
    curl_url_cleanup(parsed);
    if (rc != CURLUE_OK) {
        *error = "cloud URL '" + url + "' is not valid: " + curl_url_strerror(rc);
        return false;
    }
    return true;
}

bool valid_method(const std::string &method) {
    if (method.empty() || method.size() > 16) {
        return false;
    }
    for (char c : method) {
        if (c < 'A' || c > 'Z') {
            return false;
        }
    }
    return true;
}

bool valid_header(const std::string &name, const std::string &value) {
    if (name.empty() || name.find_first_of(":\r\n \t") != std::string::npos) {
        return false;
    }
    return value.find_first_of("\r\n") == std::string::npos &&
           value.find('\0') == std::string::npos;
}

/// Collects the answer body up to a limit; past it the transfer is aborted.
struct Sink {
    std::string body;
    size_t limit = 0;
    bool too_long = false;
};

size_t on_body(char *data, size_t size, size_t count, void *user) {
    Sink *sink = static_cast<Sink *>(user);
    const size_t n = size * count;
    if (n > sink->limit - sink->body.size()) {
        sink->too_long = true;
        return 0; // libcurl ends the transfer with CURLE_WRITE_ERROR
    }
    try {
        sink->body.append(data, n);
    } catch (...) {
        return 0;
    }
    return n;
}

/// Ends a transfer whose request was cancelled: libcurl calls it at least once a second.
int on_progress(void *user, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    const auto *cancel = static_cast<const std::atomic<bool> *>(user);
    return cancel->load() ? 1 : 0;
}

/// Frees the easy handle and header list at scope exit.
struct Handles {
    CURL *easy = nullptr;
    curl_slist *headers = nullptr;
    ~Handles() {
        curl_slist_free_all(headers);
        curl_easy_cleanup(easy);
    }
    bool add_header(const std::string &line) {
        curl_slist *next = curl_slist_append(headers, line.c_str());
        if (next == nullptr) {
            return false;
        }
        headers = next;
        return true;
    }
};

bool well_formed(const CloudRequest &request) {
    return valid_method(request.method) && !request.path.empty() && request.path[0] == '/' &&
           !has_control_or_space(request.path) && !has_control_or_space(request.query);
}

/// The request's headers, then the ones that stop libcurl's own: no "Expect: 100-continue"
/// pause before a body, and no form content type made up by libcurl when the request names
/// none ("Name:" removes a header libcurl would add). False with *error for a header that
/// cannot be sent.
bool add_headers(const CloudRequest &request, const std::string &what, Handles *h,
                 std::string *error) {
    bool has_content_type = false;
    for (const auto &[name, value] : request.headers) {
        if (!valid_header(name, value)) {
            *error = what + ": refused header '" + name.substr(0, 100) + "'";
            return false;
        }
        has_content_type = has_content_type || name == "content-type";
        // "name;" is libcurl's way to send a header with an empty value.
        std::string line = name;
        line += value.empty() ? ";" : ": ";
        line += value;
        if (!h->add_header(line)) {
            *error = what + ": out of memory";
            return false;
        }
    }
    const bool sends_body = request.method != "GET";
    if (!h->add_header("Expect:") ||
        (sends_body && !has_content_type && !h->add_header("Content-Type:"))) {
        *error = what + ": out of memory";
        return false;
    }
    return true;
}

/// Where and how to connect: the URL, time limits, TLS always verified, no proxy, no
/// redirects, http(s) only.
void set_connection(CURL *e, const CurlTransportConfig &config, const CloudRequest &request,
                    const std::string &url) {
    const long timeout_s = request.timeout_s != 0 ? request.timeout_s : kDefaultTimeoutS;
    curl_easy_setopt(e, CURLOPT_URL, url.c_str());
    curl_easy_setopt(e, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(e, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(config.connect_timeout_ms));
    curl_easy_setopt(e, CURLOPT_TIMEOUT, timeout_s);
    curl_easy_setopt(e, CURLOPT_FOLLOWLOCATION, 0L);
    // The camera talks to its cloud directly: proxy variables of the environment are not used.
    curl_easy_setopt(e, CURLOPT_PROXY, "");
#if LIBCURL_VERSION_NUM >= 0x075500
    curl_easy_setopt(e, CURLOPT_PROTOCOLS_STR, "http,https");
#endif
    curl_easy_setopt(e, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(e, CURLOPT_SSL_VERIFYHOST, 2L);
    if (!config.ca_file.empty()) {
        curl_easy_setopt(e, CURLOPT_CAINFO, config.ca_file.c_str());
    }
}

/// What goes out (method and body) and where the answer goes (the sink, bounded), with the
/// request's cancel flag checked while it runs.
void set_exchange(CURL *e, const CurlTransportConfig &config, const CloudRequest &request,
                  Sink *sink, char *error_text) {
    curl_easy_setopt(e, CURLOPT_MAXFILESIZE_LARGE,
                     static_cast<curl_off_t>(config.max_answer_bytes));
    curl_easy_setopt(e, CURLOPT_WRITEFUNCTION, on_body);
    curl_easy_setopt(e, CURLOPT_WRITEDATA, sink);
    curl_easy_setopt(e, CURLOPT_ERRORBUFFER, error_text);
    if (request.cancel != nullptr) {
        curl_easy_setopt(e, CURLOPT_NOPROGRESS, 0L);
        curl_easy_setopt(e, CURLOPT_XFERINFOFUNCTION, on_progress);
        curl_easy_setopt(e, CURLOPT_XFERINFODATA, const_cast<std::atomic<bool> *>(request.cancel));
    }
    if (request.method == "GET") {
        curl_easy_setopt(e, CURLOPT_HTTPGET, 1L);
        return;
    }
    // The body is sent as it is, NUL bytes included; libcurl does not copy it.
    curl_easy_setopt(e, CURLOPT_POST, 1L);
    curl_easy_setopt(e, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body.size()));
    curl_easy_setopt(e, CURLOPT_POSTFIELDS, request.body.data());
    if (request.method != "POST") {
        curl_easy_setopt(e, CURLOPT_CUSTOMREQUEST, request.method.c_str());
    }
}

/// Why a transfer failed, for the log.
std::string failure_text(const std::string &what, CURLcode rc, const Sink &sink,
                         const char *error_text, size_t max_answer_bytes) {
    if (rc == CURLE_ABORTED_BY_CALLBACK) {
        return what + ": cancelled";
    }
    if (sink.too_long || rc == CURLE_FILESIZE_EXCEEDED) {
        return what + ": answer longer than " + std::to_string(max_answer_bytes) +
               " bytes, refused";
    }
    return what + " failed: " + (error_text[0] != '\0' ? error_text : curl_easy_strerror(rc));
}

/// The answer of a finished transfer; false with *error when its status is not HTTP's.
bool read_answer(CURL *e, const std::string &what, Sink *sink, CloudResponse *out,
                 std::string *error) {
    long status = 0;
    curl_easy_getinfo(e, CURLINFO_RESPONSE_CODE, &status);
    if (status < 100 || status > 599) {
        *error = what + ": answer without a valid HTTP status (" + std::to_string(status) + ")";
        return false;
    }
    const char *content_type = nullptr;
    curl_easy_getinfo(e, CURLINFO_CONTENT_TYPE, &content_type);
    out->status = static_cast<int32_t>(status);
    out->content_type = content_type != nullptr ? content_type : "";
    out->body = std::move(sink->body);
    return true;
}

} // namespace

std::unique_ptr<CurlTransport> CurlTransport::create(const CurlTransportConfig &config,
                                                     std::string *error) {
    std::string ignored;
    std::string &why = error != nullptr ? *error : ignored;
    CurlTransportConfig c = config;
    while (!c.base_url.empty() && c.base_url.back() == '/') {
        c.base_url.pop_back();
    }
    if (!check_base_url(c.base_url, &why)) {
        return nullptr;
    }
    if (!c.ca_file.empty()) {
        if (!starts_with_nocase(c.base_url, "https://")) {
            why = "a CA file is only used with an https:// cloud URL";
            return nullptr;
        }
        std::ifstream probe(c.ca_file);
        if (!probe) {
            why = "cannot read the CA file '" + c.ca_file + "'";
            return nullptr;
        }
    }
    if (c.max_answer_bytes == 0) {
        why = "the answer limit must be at least one byte";
        return nullptr;
    }
    if (!global_init(&why)) {
        return nullptr;
    }
    return std::unique_ptr<CurlTransport>(new CurlTransport(std::move(c)));
}

CurlTransport::CurlTransport(CurlTransportConfig config) : config_(std::move(config)) {}

CloudResponse CurlTransport::exchange(const CloudRequest &request) {
    std::string error;
    CloudResponse out = exchange(request, &error);
    if (out.status == 0 && !error.empty()) {
        internal::log_error("cloud: %s", error.c_str());
    }
    return out;
}

CloudResponse CurlTransport::exchange(const CloudRequest &request, std::string *error) {
    error->clear();
    try {
        return perform(request, error);
    } catch (...) {
        // Only allocations throw here; the request is dropped like any other failure.
        error->assign("out of memory");
        return CloudResponse{};
    }
}

CloudResponse CurlTransport::perform(const CloudRequest &request, std::string *error) const {
    CloudResponse out;
    if (!well_formed(request)) {
        *error = "refused to send a malformed request (" + request.method + " " +
                 request.path.substr(0, 200) + ")";
        return out;
    }
    std::string url = config_.base_url + request.path;
    if (!request.query.empty()) {
        url += '?' + request.query;
    }
    const std::string what = request.method + " " + url;
    Handles h;
    h.easy = curl_easy_init();
    if (h.easy == nullptr) {
        *error = what + ": cannot create a libcurl handle";
        return out;
    }
    if (!add_headers(request, what, &h, error)) {
        return out;
    }
    Sink sink;
    sink.limit = config_.max_answer_bytes;
    char error_text[CURL_ERROR_SIZE] = "";
    set_connection(h.easy, config_, request, url);
    curl_easy_setopt(h.easy, CURLOPT_HTTPHEADER, h.headers);
    set_exchange(h.easy, config_, request, &sink, error_text);
    const CURLcode rc = curl_easy_perform(h.easy);
    if (rc != CURLE_OK) {
        *error = failure_text(what, rc, sink, error_text, config_.max_answer_bytes);
        return out;
    }
    read_answer(h.easy, what, &sink, &out, error);
    return out;
}

} // namespace hostkit
