/// GET /v1/admin/overview: what the browser view's device list shows, in one answer:
///
///   {"timeZone":"<the service's zone>","utcOffset":<seconds east of UTC now>,"now":<epoch>,
///    "devices":[{"id","lastRequest" (epoch or null),"storeMode","order":{...as GET order},
///                "eventsLeftToday","keyMd5" (empty before the device's first key),
///                "usage":{"bytes","files"},"limits":{"maxBytes","maxFiles"} (null: none),
///                "openRecording" (start time or null),"gaps" (how many reported)}]}
#ifndef VEXO_CLOUD_OVERVIEW_API_H
#define VEXO_CLOUD_OVERVIEW_API_H

#include <string>

#include "cloud_service.h"
#include "device_activity.h"

namespace vexo_cloud {

constexpr char kOverviewPath[] = "/v1/admin/overview";

/// The overview (GET only; 405 otherwise). Access is checked by the caller.
Response overview_answer(const Service &service, const DeviceActivity &activity,
                         const Request &request);

/// The zone name of the service's local time: TZ when set (without a leading ':'), else
/// /etc/timezone or the zone /etc/localtime links to, else "UTC".
std::string service_time_zone();

/// Seconds east of UTC of the local time at epoch time t.
int64_t utc_offset_at(uint32_t t);

} // namespace vexo_cloud

#endif
