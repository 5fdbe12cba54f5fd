// How the kit's cloud calls reach the cloud: live, or through the outage spool when it is on.
// Not for the kit's users.
#ifndef VEXO_HOST_CLOUD_DELIVERY_H
#define VEXO_HOST_CLOUD_DELIVERY_H

#include <cstdint>
#include <string>

#include "host_kit.h"
#include "spool.h"

namespace hostkit::internal {

struct Delivery {
    /// The request waits in the spool: the call is to answer as if delivered.
    bool queued = false;
    /// The cloud's answer to a live request (status 0 when none, or when it could be neither
    /// sent nor queued).
    CloudResponse response;
};

/// Sends a request that may wait in the spool. Without a spool: live, as it stands. With one:
/// behind the queue while anything is queued (no network attempt); else live within the short
/// live time limit, and queued when the cloud turns out unreachable (no answer, 5xx, 408,
/// 429). Any other answer, a 4xx included, is the call's.
Delivery deliver(CloudRequest request, const spool::ItemInfo &info);
/// Sends a request that never waits in the spool (configuration fetches; a start without a
/// key). While the spool holds items the cloud is known to be unreachable: with
/// `fail_while_queued` the request then fails at once (status 0) without a network attempt.
CloudResponse send_live(CloudRequest request, bool fail_while_queued);

/// The item a media upload becomes: its recording and the seconds it covers (from its name
/// "<start>_<elapsed>.media" and the slice length the latest start announced).
spool::ItemInfo media_item(const std::string &file_name);
/// The item an API post becomes; *spoolable false for an unknown API name and for a start
/// whose key md5 is "0000" (the module has no key: its footage is of no use without the one
/// the cloud's answer brings).
spool::ItemInfo api_item(const std::string &api_name, const std::string &body, bool *spoolable);

/// The spool's part of the kit's start and stop. spool_open (before the kit is marked
/// started) opens the directory when Options::spool.enabled; false with *error when it cannot.
/// spool_run starts the sender; spool_stop ends it and closes the spool.
bool spool_open(const Options &options, std::string *error);
void spool_run();
void spool_stop();
/// Has the sender try the cloud at once (see hostkit::spool_retry_now).
void spool_retry_now();
/// Fills the spool's counters (the last ones seen after stop).
void spool_counters(Counters *counters);

// Defined in cloud_calls.cc, where requests get their wire form.
/// Adds the device token the kit has now (or removes a stale one).
void add_credentials(CloudRequest *request);
/// POST /v1/devices/D/gaps {"from":T1,"to":T2,"reason":"...","bytes":N}.
CloudRequest gap_request(const spool::Gap &gap);

} // namespace hostkit::internal

#endif
