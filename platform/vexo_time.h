/// Wall-clock time of the kit.
#ifndef VEXO_TIME_H
#define VEXO_TIME_H

#include <time.h>

#include "vexo_platform_common.h"

VEXO_EXTERN_C_BEGIN

/// Seconds since the epoch (unsigned 32-bit).
uint32_t uni_time_get_posix(void);
/// Breaks posix into local calendar time (the device's zone). 0 on success.
int32_t uni_local_time_get_custom(uint32_t posix, struct tm *local);

VEXO_EXTERN_C_END

#endif
