/// The rules of an order: which values an admin may set, which store mode a device is told,
/// and how many events a device has left today.
#ifndef VEXO_CLOUD_ORDER_RULES_H
#define VEXO_CLOUD_ORDER_RULES_H

#include <cstdint>
#include <string>

#include "cloud_service.h"
#include "records.h"

namespace vexo_cloud {

/// The store mode storage/config answers for an aborted order.
constexpr char kStoreModeNone[] = "none";
constexpr char kStoreModeEvent[] = "event";

/// True when every value of the order is in range; *error names the first one that is not.
bool validate_order(const Order &order, std::string *error);

/// Applies the set members of change to *order when the result is valid; *order is left
/// alone otherwise. Does not touch the abort flag.
bool apply_order_change(Order *order, const OrderChange &change, std::string *error);

/// The store mode a device is told: "none" for an aborted order, else the order's text.
std::string effective_store_mode(const Order &order);

/// True when a new recording start counts against the daily allowance.
bool counts_against_allowance(const Order &order);

/// The local calendar date (TZ) of a time, as yyyymmdd.
int32_t local_day(uint32_t time);

/// The local day (TZ) of a time as [*from, *to), seconds since the epoch.
void local_day_span(uint32_t time, uint32_t *from, uint32_t *to);

/// Events left on day today: the allowance less today's starts, never below zero.
int32_t events_left(const Order &order, const Allowance &allowance, int32_t today);

/// Counts one started event recording on its day, yyyymmdd. A later day than the one counted
/// starts from zero; an earlier one is over and leaves the count alone. True when it counted.
bool count_event(Allowance *allowance, int32_t day);

/// Counts a new event recording that started at start_time, at service time now, on the
/// local day of its start however late the notification arrives (a device may send it after
/// an outage), but never on a day after now's (a device clock ahead of the service's). A
/// count kept for a day after now's (the service's clock went back) starts again. True when
/// the allowance changed.
bool count_start(Allowance *allowance, uint32_t start_time, uint32_t now);

} // namespace vexo_cloud

#endif
