/// The network cloud transport: each request goes to a cloud service over HTTP or HTTPS with
/// libcurl. One connection per request and no retries: a request is sent at most once, and
/// the module decides what a failure means.
#ifndef VEXO_HOST_CURL_TRANSPORT_H
#define VEXO_HOST_CURL_TRANSPORT_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "cloud_transport.h"

namespace hostkit {

struct CurlTransportConfig {
    /// "http://host[:port][/prefix]" or "https://..."; request paths are appended to it.
    std::string base_url;
    /// PEM file with the certificate authorities an https server is verified against; empty:
    /// the system's. The server's certificate and host name are always verified.
    std::string ca_file;
    /// Answers with a longer body are refused (status 0), so a hostile server cannot make
    /// the camera hold an unbounded answer.
    size_t max_answer_bytes = size_t{1} << 20;
    /// Time to establish the connection (TCP and TLS), milliseconds.
    uint32_t connect_timeout_ms = 5000;
};

class CurlTransport : public CloudTransport {
  public:
    /// Checks the configuration; null with *error when the URL is not an http(s) URL, the CA
    /// file cannot be read, or libcurl cannot be initialised.
    static std::unique_ptr<CurlTransport> create(const CurlTransportConfig &config,
                                                 std::string *error);

    /// Sends the request to base_url + path [+ '?' + query] with its headers and exact body,
    /// within request.timeout_s seconds (0 takes 30). Status 0 and a kit error line when no
    /// usable answer came: no connection, time-out, TLS failure, answer too long.
    CloudResponse exchange(const CloudRequest &request) override;
    /// The same, with the reason in *error instead of a kit log line when no usable answer
    /// came (status 0); *error is cleared otherwise.
    CloudResponse exchange(const CloudRequest &request, std::string *error);

    const std::string &base_url() const { return config_.base_url; }

  private:
    explicit CurlTransport(CurlTransportConfig config);
    CloudResponse perform(const CloudRequest &request, std::string *error) const;
    CurlTransportConfig config_;
};

} // namespace hostkit

#endif
