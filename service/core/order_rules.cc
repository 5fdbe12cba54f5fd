/// Order validation, the effective store mode and the daily event allowance.
#include "order_rules.h"

#include <algorithm>
#include <ctime>

#include "json_fields.h"

namespace vexo_cloud {

// ---- constants -----------------------------------------------------------------------------

namespace {

struct Range {
    const char *name;
    int32_t low;
    int32_t high;
};

constexpr Range kEventDuration = {"event duration", 1, 1800};
constexpr Range kSliceDuration = {"slice duration", 3, 60};
constexpr Range kSilenceInterval = {"silence interval", 0, 86400};
constexpr Range kDailyEvents = {"daily events", 0, 100000};
constexpr size_t kMaxStoreModeLength = 64;

// ---- helpers -------------------------------------------------------------------------------

bool in_range(const Range &range, int32_t value, std::string *error) {
    if (value >= range.low && value <= range.high) {
        return true;
    }
    if (error != nullptr) {
        *error = std::string(range.name) + " " + std::to_string(value) + " is not in " +
                 std::to_string(range.low) + ".." + std::to_string(range.high);
    }
    return false;
}

} // namespace

// ---- exported calls ------------------------------------------------------------------------

bool validate_order(const Order &order, std::string *error) {
    if (order.store_mode.size() > kMaxStoreModeLength) {
        if (error != nullptr) {
            *error = "store mode longer than " + std::to_string(kMaxStoreModeLength);
        }
        return false;
    }
    if (!is_utf8(order.store_mode)) {
        if (error != nullptr) {
            *error = "store mode is not UTF-8 text";
        }
        return false;
    }
    return in_range(kEventDuration, order.event_duration, error) &&
           in_range(kSliceDuration, order.slice_duration, error) &&
           in_range(kSilenceInterval, order.silence_interval, error) &&
           in_range(kDailyEvents, order.daily_events, error);
}

bool apply_order_change(Order *order, const OrderChange &change, std::string *error) {
    Order next = *order;
    if (change.store_mode) {
        next.store_mode = *change.store_mode;
    }
    if (change.event_duration) {
        next.event_duration = *change.event_duration;
    }
    if (change.slice_duration) {
        next.slice_duration = *change.slice_duration;
    }
    if (change.silence_interval) {
        next.silence_interval = *change.silence_interval;
    }
    if (change.daily_events) {
        next.daily_events = *change.daily_events;
    }
    if (change.expired) {
        next.expired = *change.expired;
    }
    if (!validate_order(next, error)) {
        return false;
    }
    *order = next;
    return true;
}

std::string effective_store_mode(const Order &order) {
    return order.aborted ? kStoreModeNone : order.store_mode;
}

bool counts_against_allowance(const Order &order) {
    return !order.aborted && !order.expired && order.store_mode == kStoreModeEvent;
}

int32_t local_day(uint32_t time) {
    const time_t t = static_cast<time_t>(time);
    struct tm local {};
    if (localtime_r(&t, &local) == nullptr) {
        return 0;
    }
    return (local.tm_year + 1900) * 10000 + (local.tm_mon + 1) * 100 + local.tm_mday;
}

void local_day_span(uint32_t time, uint32_t *from, uint32_t *to) {
    const time_t t = static_cast<time_t>(time);
    struct tm local {};
    if (localtime_r(&t, &local) == nullptr) {
        *from = time;
        *to = time + 1;
        return;
    }
    local.tm_hour = 0;
    local.tm_min = 0;
    local.tm_sec = 0;
    local.tm_isdst = -1; // midnight may be on the other side of a daylight saving change
    const time_t start = mktime(&local);
    local.tm_mday += 1;
    local.tm_isdst = -1;
    const time_t end = mktime(&local);
    const auto clamp = [](time_t value) {
        return static_cast<uint32_t>(std::clamp<int64_t>(value, 0, UINT32_MAX));
    };
    *from = start == -1 ? time : clamp(start);
    *to = end == -1 || end <= start ? *from + 86400 : clamp(end);
}

int32_t events_left(const Order &order, const Allowance &allowance, int32_t today) {
    const int32_t used = allowance.day == today ? allowance.events_started : 0;
    return used >= order.daily_events ? 0 : order.daily_events - used;
}

bool count_event(Allowance *allowance, int32_t day) {
    if (day < allowance->day) {
        return false;
    }
    if (day > allowance->day) {
        allowance->day = day;
        allowance->events_started = 0;
    }
    if (allowance->events_started < INT32_MAX) {
        ++allowance->events_started;
    }
    return true;
}

bool count_start(Allowance *allowance, uint32_t start_time, uint32_t now) {
    const bool ahead = allowance->day > local_day(now);
    if (ahead) {
        *allowance = Allowance{};
    }
    return count_event(allowance, local_day(std::min(start_time, now))) || ahead;
}

} // namespace vexo_cloud
