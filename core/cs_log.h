/// Log and sequence-log helpers of the module: every line carries its source file and line;
/// every sequence entry carries the module name and a value of the type its kind names.
#ifndef VEXO_CS_LOG_H
#define VEXO_CS_LOG_H

#include <cstdint>

#include "vexo_log.h"

#ifdef __FILE_NAME__
#define CS_SOURCE_FILE __FILE_NAME__
#else
#define CS_SOURCE_FILE __FILE__
#endif

#define CS_ERR(...) PrintErrLog(CS_SOURCE_FILE, __LINE__, __VA_ARGS__)
#define CS_DBG(...) PrintDebugLog(CS_SOURCE_FILE, __LINE__, __VA_ARGS__)
#define CS_TRACE(...) PrintTraceLog(CS_SOURCE_FILE, __LINE__, __VA_ARGS__)

#pragma GCC visibility push(hidden)

namespace cs_seq {

constexpr const char *MODULE_NAME = "cloud_storage";

inline void none(uint32_t seq) {
    log_seq_insert_log(MODULE_NAME, seq, VEXO_SEQ_NONE, int32_t{0});
}
inline void code(uint32_t seq, int32_t value) {
    log_seq_insert_log(MODULE_NAME, seq, VEXO_SEQ_CODE, value);
}
inline void time(uint32_t seq, uint32_t value) {
    log_seq_insert_log(MODULE_NAME, seq, VEXO_SEQ_TIME, value);
}
inline void text(uint32_t seq, const char *value) {
    log_seq_insert_log(MODULE_NAME, seq, VEXO_SEQ_TEXT, value);
}

inline void report_none(uint32_t seq) {
    log_seq_insert_report_log(MODULE_NAME, seq, VEXO_SEQ_NONE, int32_t{0});
}
inline void report_code(uint32_t seq, int32_t value) {
    log_seq_insert_report_log(MODULE_NAME, seq, VEXO_SEQ_CODE, value);
}
inline void report_time(uint32_t seq, uint32_t value) {
    log_seq_insert_report_log(MODULE_NAME, seq, VEXO_SEQ_TIME, value);
}

} // namespace cs_seq

#pragma GCC visibility pop

#endif
