// Log lines to stderr, and the sequence log as JSON lines in the data directory.
//
// A log line: "2026-11-22 10:00:00.123 E upload_thread.cc:181 text" with the kit clock's local
// time, the level (E error, D debug, T trace) and the caller's file (without directories).
// A sequence-log line: {"time":1790000000,"module":"cloud_storage","seq":30,"kind":3,
// "value":1790000000,"report":false}; "report" marks the entries queued for reporting.
#include <time.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>

#include "host_internal.h"
#include "vexo_log.h"

namespace hostkit {
namespace {

std::mutex g_log_mu;
std::mutex g_seq_mu;
FILE *g_seq_file = nullptr;

const char *base_name(const char *file) {
    if (file == nullptr) {
        return "?";
    }
    const char *slash = std::strrchr(file, '/');
    return slash != nullptr ? slash + 1 : file;
}

char level_letter(LogLevel level) {
    switch (level) {
    case LogLevel::kError:
        return 'E';
    case LogLevel::kDebug:
        return 'D';
    default:
        return 'T';
    }
}

/// Appends text to out as the body of a JSON string (quotes, backslashes, controls escaped).
void json_escape(std::string &out, const char *text) {
    for (const char *p = text; *p != '\0'; ++p) {
        const unsigned char c = static_cast<unsigned char>(*p);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20) {
            char buf[8];
            // NOLINTNEXTLINE(cert-err33-c): never cut, "\u00XX" takes 7 of the 8 bytes
            std::snprintf(buf, sizeof buf, "\\u%04x", c);
            out += buf;
        } else {
            out += static_cast<char>(c);
        }
    }
}

int32_t seq_insert(bool report, const char *module, uint32_t seq, uint32_t kind, va_list args) {
    std::string line = "{\"time\":" + std::to_string(now_ms() / 1000) + ",\"module\":\"";
    json_escape(line, module != nullptr ? module : "");
    line +=
        "\",\"seq\":" + std::to_string(seq) + ",\"kind\":" + std::to_string(kind) + ",\"value\":";
    switch (kind) {
    case VEXO_SEQ_TIME:
        line += std::to_string(va_arg(args, uint32_t));
        break;
    case VEXO_SEQ_TEXT: {
        const char *text = va_arg(args, const char *);
        line += '"';
        json_escape(line, text != nullptr ? text : "");
        line += '"';
        break;
    }
    case VEXO_SEQ_NONE:
    case VEXO_SEQ_CODE:
        line += std::to_string(va_arg(args, int32_t));
        break;
    default:
        internal::log_error("sequence log: unknown value kind %u (seq %u)", kind, seq);
        return -1;
    }
    line += report ? ",\"report\":true}\n" : ",\"report\":false}\n";
    std::lock_guard<std::mutex> lock(g_seq_mu);
    if (g_seq_file == nullptr) {
        return -1;
    }
    if (std::fputs(line.c_str(), g_seq_file) < 0 || std::fflush(g_seq_file) != 0) {
        return -1;
    }
    return 0;
}

} // namespace

namespace internal {

void log_line(LogLevel level, const char *file, int32_t line, const char *fmt, va_list args) {
    if (level != LogLevel::kError &&
        static_cast<int>(level) > static_cast<int>(options().log_level)) {
        return;
    }
    const uint64_t ms = now_ms();
    const time_t secs = static_cast<time_t>(ms / 1000);
    struct tm local {};
    localtime_r(&secs, &local);
    char stamp[32];
    if (std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local) == 0) {
        stamp[0] = '\0'; // the buffer's content is undefined then
    }
    char text[1024];
    // NOLINTNEXTLINE(cert-err33-c): a longer line is cut to the buffer, as intended
    std::vsnprintf(text, sizeof text, fmt, args);
    // The module ends some lines with "\r\n" or "\n"; one newline is ours.
    size_t n = std::strlen(text);
    while (n > 0 && (text[n - 1] == '\n' || text[n - 1] == '\r')) {
        text[--n] = '\0';
    }
    std::lock_guard<std::mutex> lock(g_log_mu);
    // A log line that cannot be written to stderr has nowhere else to go.
    (void)std::fprintf(stderr, "%s.%03u %c %s:%d %s\n", stamp, static_cast<unsigned>(ms % 1000),
                       level_letter(level), base_name(file), static_cast<int>(line), text);
}

// The host kit's own printf-style lines share log_line with the C log calls; the format
// attribute on their declarations has the compiler check every call's arguments.
// NOLINTNEXTLINE(cert-dcl50-cpp): printf-style, checked through the format attribute
void log_error(const char *fmt, ...) {
    va_list args;
    va_start(args, fmt);
    log_line(LogLevel::kError, "hostkit", 0, fmt, args);
    va_end(args);
}

// NOLINTNEXTLINE(cert-dcl50-cpp): printf-style, checked through the format attribute
void log_debug(const char *fmt, ...) {
    va_list args;
    va_start(args, fmt);
    log_line(LogLevel::kDebug, "hostkit", 0, fmt, args);
    va_end(args);
}

void seq_log_start(const std::string &data_dir) {
    const std::string path = data_dir + "/seq-log.jsonl";
    std::lock_guard<std::mutex> lock(g_seq_mu);
    if (g_seq_file != nullptr) {
        // Every line was flushed when written (seq_insert): a failed close loses nothing.
        (void)std::fclose(g_seq_file);
    }
    g_seq_file = std::fopen(path.c_str(), "a");
    if (g_seq_file == nullptr) {
        (void)std::fprintf(stderr, "hostkit: cannot open %s: %s\n", path.c_str(),
                           std::strerror(errno));
    }
}

void seq_log_stop() {
    std::lock_guard<std::mutex> lock(g_seq_mu);
    if (g_seq_file != nullptr) {
        // Every line was flushed when written (seq_insert): a failed close loses nothing.
        (void)std::fclose(g_seq_file);
        g_seq_file = nullptr;
    }
}

} // namespace internal
} // namespace hostkit

extern "C" {

void PrintErrLog(const char *file, int32_t line, const char *fmt, ...) {
    va_list args;
    va_start(args, fmt);
    hostkit::internal::log_line(hostkit::LogLevel::kError, file, line, fmt, args);
    va_end(args);
}

void PrintDebugLog(const char *file, int32_t line, const char *fmt, ...) {
    va_list args;
    va_start(args, fmt);
    hostkit::internal::log_line(hostkit::LogLevel::kDebug, file, line, fmt, args);
    va_end(args);
}

void PrintTraceLog(const char *file, int32_t line, const char *fmt, ...) {
    va_list args;
    va_start(args, fmt);
    hostkit::internal::log_line(hostkit::LogLevel::kTrace, file, line, fmt, args);
    va_end(args);
}

int32_t log_seq_insert_log(const char *module, uint32_t seq, uint32_t kind, ...) {
    va_list args;
    va_start(args, kind);
    const int32_t ret = hostkit::seq_insert(false, module, seq, kind, args);
    va_end(args);
    return ret;
}

int32_t log_seq_insert_report_log(const char *module, uint32_t seq, uint32_t kind, ...) {
    va_list args;
    va_start(args, kind);
    const int32_t ret = hostkit::seq_insert(true, module, seq, kind, args);
    va_end(args);
    return ret;
}

} // extern "C"
