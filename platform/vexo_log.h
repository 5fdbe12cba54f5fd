/// Logging and the kit's sequence log.
#ifndef VEXO_LOG_H
#define VEXO_LOG_H

#include "vexo_platform_common.h"

VEXO_EXTERN_C_BEGIN

/// printf-style log lines at three levels, with the caller's source file and line.
/// Non-blocking apart from the kit's own output; callable from any thread.
void PrintErrLog(const char *file, int32_t line, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));
void PrintDebugLog(const char *file, int32_t line, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));
void PrintTraceLog(const char *file, int32_t line, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));

/// Value kinds of a sequence-log entry. The value is the one variadic argument, of the type
/// its kind names (a 0 of type int32_t is still passed for VEXO_SEQ_NONE).
enum {
    VEXO_SEQ_NONE = 0, /* int32_t 0 */
    VEXO_SEQ_CODE = 1, /* int32_t code or count */
    VEXO_SEQ_TIME = 3, /* uint32_t seconds */
    VEXO_SEQ_TEXT = 4  /* const char * */
};
/// Records a milestone. 0 on success; callable from any thread.
int32_t log_seq_insert_log(const char *module, uint32_t seq, uint32_t kind, ...);
/// Records a milestone and queues it for reporting to the cloud.
int32_t log_seq_insert_report_log(const char *module, uint32_t seq, uint32_t kind, ...);

VEXO_EXTERN_C_END

#endif
