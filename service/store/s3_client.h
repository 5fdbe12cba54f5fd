/// A small S3 client over libcurl: one request per call, path-style addressing
/// (endpoint/bucket/key), signed with AWS Signature V4 by libcurl. Each call uses its own
/// curl handle, so calls from several threads may run at once.
#ifndef VEXO_CLOUD_S3_CLIENT_H
#define VEXO_CLOUD_S3_CLIENT_H

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace vexo_cloud {

struct S3Config {
    std::string endpoint; ///< "http://host:port", no trailing slash
    std::string region = "us-east-1";
    std::string bucket;
    std::string access_key;
    std::string secret_key;
    long timeout_seconds = 60;
};

struct S3Request {
    std::string method = "GET";
    std::string key;   ///< object key, unescaped; empty for the bucket itself
    std::string query; ///< already escaped, without '?'
    std::vector<std::string> headers;
    const std::string *body = nullptr; ///< sent as is; its SHA-256 is signed
    /// Receives a 2xx answer's body as it arrives (not kept then); false stops the transfer.
    std::function<bool(const char *, size_t)> sink;
};

struct S3Response {
    long status = 0;
    std::string body; ///< an error's body, or a 2xx body when there was no sink
    std::map<std::string, std::string> headers; ///< names in lower case
    bool stopped = false;                       ///< the sink stopped the transfer
};

class S3Client {
  public:
    explicit S3Client(S3Config config);

    /// Sends a request. Throws FileError (ECONNREFUSED) when the gateway cannot be reached
    /// or the transfer breaks; any HTTP status comes back in the response.
    S3Response send(const S3Request &request) const;

    /// A FileError for an answer that was not expected: the status and the S3 error code.
    /// 404 maps to ENOENT, 403 to EACCES, 5xx to EAGAIN (try again), others to EIO.
    [[noreturn]] void fail(const std::string &what, const S3Response &response) const;

    const S3Config &config() const { return config_; }

  private:
    S3Config config_;
};

/// The text between the first <tag> and </tag> from pos on; empty when there is none.
std::string xml_value(const std::string &xml, const std::string &tag, size_t pos = 0);
/// Every <tag>...</tag> element's inner text, in order.
std::vector<std::string> xml_elements(const std::string &xml, const std::string &tag);
/// Escapes a key for a URL path (slashes kept) or a query value (slashes escaped).
std::string uri_escape(const std::string &text, bool keep_slash);

} // namespace vexo_cloud

#endif
