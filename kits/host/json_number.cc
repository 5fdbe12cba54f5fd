// Whole numbers out of JSON that a peer sent (cloud answers, MQTT commands). cJSON keeps every
// number as a double, and a double outside the target type makes a plain cast undefined, so
// every integer the kit takes from JSON goes through here first.
#include <cjson/cJSON.h>

#include <cmath>

#include "host_internal.h"

namespace hostkit::internal {

WholeNumber read_whole_number(const cJSON *item, int64_t low, int64_t high, int64_t *out) {
    if (!cJSON_IsNumber(item)) {
        return WholeNumber::kRefused;
    }
    const double value = item->valuedouble;
    // A JSON text cannot spell NaN, but a tree built in code can hold one; infinities come
    // from exponents beyond the double range and are compared like any large number.
    if (std::isnan(value) || (std::isfinite(value) && std::trunc(value) != value)) {
        return WholeNumber::kRefused;
    }
    // Both bounds are at most 2^53 in magnitude, so they convert to double exactly.
    if (value < static_cast<double>(low)) {
        *out = low;
        return WholeNumber::kClamped;
    }
    if (value > static_cast<double>(high)) {
        *out = high;
        return WholeNumber::kClamped;
    }
    *out = static_cast<int64_t>(value);
    return WholeNumber::kFits;
}

} // namespace hostkit::internal
