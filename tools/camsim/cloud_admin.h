// A cloud service on the network: the kit's cloud calls go to it over HTTP(S), and the
// simulator drives it through its admin endpoints under URL/v1/admin/devices/<device>/:
//   PUT  order       {"storeMode":"event","eventDuration":12,...}   -> 200 the order
//   POST trigger     {"action":"record","duration":30,"ext":{"user":"camsim"}}
//   POST abort       {}
//   GET  recordings  -> {"recordings":[{"startTime":N,"endTime":N,"files":N,"bytes":N,
//                                       "keyMd5":"..."}]}
// A refusal is a 4xx/5xx answer with {"error":"..."}.
#ifndef VEXO_CAMSIM_CLOUD_ADMIN_H
#define VEXO_CAMSIM_CLOUD_ADMIN_H

#include <nlohmann/json.hpp>

#include "cloud_control.h"
#include "curl_transport.h"

namespace camsim {

class CloudAdmin : public CloudControl {
  public:
    /// For options.cloud_url (with cloud_ca, admin_token); null with *error for a bad URL or
    /// CA file. Nothing is sent yet.
    static std::unique_ptr<CloudAdmin> create(const Options &options, std::string *error);

    std::shared_ptr<hostkit::CloudTransport> transport() override { return device_; }
    /// Sends the set members; "expired" is not part of the admin order and is not sent.
    bool set_order(const vexo_cloud::OrderChange &change, std::string *error) override;
    bool trigger(const std::string &action, int32_t duration_s, std::string *error) override;
    bool abort_order(std::string *error) override;
    bool recordings(std::vector<RecordingSummary> *out, std::string *error) override;
    std::string name() const override { return admin_->base_url(); }
    std::string media_dir() const override { return ""; }

    /// Reads a recordings answer; false with *error when it does not have that shape.
    static bool parse_recordings(const std::string &body, std::vector<RecordingSummary> *out,
                                 std::string *error);

  private:
    CloudAdmin(std::shared_ptr<hostkit::CurlTransport> device,
               std::unique_ptr<hostkit::CurlTransport> admin, const Options &options);
    /// One admin call on URL/v1/admin/devices/<device>/<what>; true for a 2xx answer, whose
    /// body goes to *answer when not null. *error says why otherwise.
    bool call(const char *method, const char *what, const nlohmann::ordered_json *body,
              std::string *answer, std::string *error);

    std::shared_ptr<hostkit::CurlTransport> device_;
    std::unique_ptr<hostkit::CurlTransport> admin_;
    std::string device_id_;
    std::string admin_token_;
};

} // namespace camsim

#endif
