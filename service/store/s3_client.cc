/// S3 requests over libcurl with AWS Signature V4. libcurl signs the request
/// (CURLOPT_AWS_SIGV4) but, in the versions Debian ships, does not send the payload's hash
/// itself; S3 gateways refuse a request without x-amz-content-sha256, so it is added here.
#include "s3_client.h"

#include <cctype>
#include <cerrno>
#include <curl/curl.h>
#include <mutex>

#include "durable_file.h"
#include "sha256.h"

namespace vexo_cloud {

namespace {

void global_init() {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

struct Transfer {
    const S3Request *request;
    S3Response *response;
    CURL *curl;
    size_t sent = 0;
};

size_t on_body(char *data, size_t size, size_t count, void *user) {
    auto *transfer = static_cast<Transfer *>(user);
    const size_t bytes = size * count;
    long status = 0;
    curl_easy_getinfo(transfer->curl, CURLINFO_RESPONSE_CODE, &status);
    if (status / 100 == 2 && transfer->request->sink) {
        if (!transfer->request->sink(data, bytes)) {
            transfer->response->stopped = true;
            return 0;
        }
        return bytes;
    }
    transfer->response->body.append(data, bytes);
    return bytes;
}

size_t on_header(char *data, size_t size, size_t count, void *user) {
    auto *transfer = static_cast<Transfer *>(user);
    const size_t bytes = size * count;
    const std::string line(data, bytes);
    const size_t colon = line.find(':');
    if (colon != std::string::npos) {
        std::string name = line.substr(0, colon);
        for (char &c : name) {
            c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        }
        size_t start = colon + 1;
        while (start < line.size() && line[start] == ' ') {
            ++start;
        }
        size_t end = line.size();
        while (end > start && (line[end - 1] == '\r' || line[end - 1] == '\n')) {
            --end;
        }
        transfer->response->headers[name] = line.substr(start, end - start);
    }
    return bytes;
}

size_t on_send(char *buffer, size_t size, size_t count, void *user) {
    auto *transfer = static_cast<Transfer *>(user);
    const std::string &body = *transfer->request->body;
    const size_t n = std::min(size * count, body.size() - transfer->sent);
    body.copy(buffer, n, transfer->sent);
    transfer->sent += n;
    return n;
}

} // namespace

S3Client::S3Client(S3Config config) : config_(std::move(config)) {
    global_init();
}

S3Response S3Client::send(const S3Request &request) const {
    S3Response response;
    CURL *curl = curl_easy_init();
    if (curl == nullptr) {
        throw FileError("cannot start a curl handle", ENOMEM);
    }
    Transfer transfer{&request, &response, curl};
    std::string url = config_.endpoint + "/" + config_.bucket;
    if (!request.key.empty()) {
        url += "/" + uri_escape(request.key, true);
    }
    if (!request.query.empty()) {
        url += "?" + request.query;
    }
    const std::string empty;
    const std::string &body = request.body != nullptr ? *request.body : empty;
    curl_slist *headers = nullptr;
    headers = curl_slist_append(
        headers, ("x-amz-content-sha256: " + sha256_hex(body.data(), body.size())).c_str());
    for (const std::string &header : request.headers) {
        headers = curl_slist_append(headers, header.c_str());
    }
    const std::string sigv4 = "aws:amz:" + config_.region + ":s3";
    const std::string user = config_.access_key + ":" + config_.secret_key;
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_AWS_SIGV4, sigv4.c_str());
    curl_easy_setopt(curl, CURLOPT_USERPWD, user.c_str());
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, 10L);
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME, config_.timeout_seconds);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, on_body);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &transfer);
    curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, on_header);
    curl_easy_setopt(curl, CURLOPT_HEADERDATA, &transfer);
    if (request.method == "HEAD") {
        curl_easy_setopt(curl, CURLOPT_NOBODY, 1L);
    } else if (request.method == "PUT") {
        curl_easy_setopt(curl, CURLOPT_UPLOAD, 1L);
        curl_easy_setopt(curl, CURLOPT_READFUNCTION, on_send);
        curl_easy_setopt(curl, CURLOPT_READDATA, &transfer);
        curl_easy_setopt(curl, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(body.size()));
    } else if (request.method == "POST") {
        curl_easy_setopt(curl, CURLOPT_POST, 1L);
        curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body.data());
        curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
    } else if (request.method != "GET") {
        curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, request.method.c_str());
    }
    const CURLcode code = curl_easy_perform(curl);
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &response.status);
    curl_slist_free_all(headers);
    curl_easy_cleanup(curl);
    if (code != CURLE_OK && !(code == CURLE_WRITE_ERROR && response.stopped)) {
        throw FileError("S3 " + request.method + " " + url + ": " + curl_easy_strerror(code),
                        ECONNREFUSED);
    }
    return response;
}

void S3Client::fail(const std::string &what, const S3Response &response) const {
    int error_number = EIO;
    if (response.status == 404) {
        error_number = ENOENT;
    } else if (response.status == 403) {
        error_number = EACCES;
    } else if (response.status >= 500) {
        error_number = EAGAIN;
    }
    const std::string code = xml_value(response.body, "Code");
    throw FileError(what + ": HTTP " + std::to_string(response.status) +
                        (code.empty() ? "" : " " + code),
                    error_number);
}

std::string xml_value(const std::string &xml, const std::string &tag, size_t pos) {
    const std::string open = "<" + tag + ">";
    const size_t start = xml.find(open, pos);
    if (start == std::string::npos) {
        return "";
    }
    const size_t end = xml.find("</" + tag + ">", start);
    return end == std::string::npos ? ""
                                    : xml.substr(start + open.size(), end - start - open.size());
}

std::vector<std::string> xml_elements(const std::string &xml, const std::string &tag) {
    std::vector<std::string> elements;
    const std::string open = "<" + tag + ">";
    const std::string close = "</" + tag + ">";
    for (size_t pos = xml.find(open); pos != std::string::npos; pos = xml.find(open, pos)) {
        const size_t end = xml.find(close, pos);
        if (end == std::string::npos) {
            break;
        }
        elements.push_back(xml.substr(pos + open.size(), end - pos - open.size()));
        pos = end + close.size();
    }
    return elements;
}

std::string uri_escape(const std::string &text, bool keep_slash) {
    static const char kDigits[] = "0123456789ABCDEF";
    std::string out;
    for (const char ch : text) {
        const auto c = static_cast<unsigned char>(ch);
        if (std::isalnum(c) || c == '-' || c == '_' || c == '.' || c == '~' ||
            (keep_slash && c == '/')) {
            out += ch;
        } else {
            out += '%';
            out += kDigits[c >> 4];
            out += kDigits[c & 15];
        }
    }
    return out;
}

} // namespace vexo_cloud
