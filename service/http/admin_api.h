/// The service's admin interface in HTTP form, under /v1/admin/: an operator (or the camera
/// simulator) reads and changes device orders, aborts them, and asks a device for a remote
/// recording or picture. Changes go through the service, which publishes them to the device.
///
///   GET  /v1/admin/devices                     {"devices":["D",...]}
///   GET  /v1/admin/devices/D/order             the order (below)
///   PUT  /v1/admin/devices/D/order             change: any of "storeMode", "eventDuration",
///                                              "sliceDuration", "silenceInterval",
///                                              "dailyEvents", "countLeft", "expired";
///                                              answers the order
///   POST /v1/admin/devices/D/abort             answers the order
///   POST /v1/admin/devices/D/trigger           {"action":"record"|"pic"|"pic_v",
///                                               "duration":N,"ext":{...}}
///   GET  /v1/admin/devices/D/recordings        {"recordings":[{"startTime","endTime",
///                                               "files","bytes","keyMd5","mtu","state"}],
///                                               "gaps":[{"from","to","reason","bytes"}]}
///                                              state: "closed", "open" or "left open by
///                                              the camera" (see recording_status); both
///                                              lists by time
///   GET  /v1/admin/devices/D/alarms            {"alarms":[{"id","time","withPicture",
///                                               "extra","pictureBytes"}]}
///   GET  /v1/admin/devices/D/limits            the limits in force (below) and
///                                              "usage":{"bytes","files","alarmsToday"}
///   PUT  /v1/admin/devices/D/limits            change the device's own limits: any of
///                                              the members below; 0 or null lifts one
///                                              (the service's default applies again),
///                                              an absent one stays; answers as GET
///
/// Playback of recordings and alarm pictures (playlists, segments, thumbnails, exports):
/// see playback_api.h.
///
/// The recordings answer also has "limits" and "usage" as the limits call answers them.
/// Limits: {"maxBytes","maxFiles","alarmsPerDay","retentionDays","retentionBytes"}, each a
/// whole number or null for none; the device's own where set, else the service's default.
/// An order change that would create a device beyond the service's device cap gets 507.
///
/// The order: {"storeMode","eventDuration","sliceDuration","silenceInterval","dailyEvents",
/// "countLeft","expired","aborted"}. Refusals are 4xx with {"error":"..."}; a failure inside
/// the service is 500 {"error":"internal error"}, its detail on stderr.
#ifndef VEXO_CLOUD_ADMIN_API_H
#define VEXO_CLOUD_ADMIN_API_H

#include <string>

#include "cloud_service.h"

namespace vexo_cloud {

constexpr char kAdminPrefix[] = "/v1/admin/";

/// True when token is empty or the request carries "authorization: Bearer <token>".
bool admin_token_accepted(const Request &request, const std::string &token);

/// Answers one admin request (path starting with kAdminPrefix). token: when not empty, the
/// request must carry "authorization: Bearer <token>" or gets 401.
Response handle_admin(Service &service, const Request &request, const std::string &token);

} // namespace vexo_cloud

#endif
