// Log lines and sequence-log entries, kept in memory for tests to search. Trace lines are kept
// only on request: a long run produces millions of them.
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "kit_internal.h"
#include "test_kit.h"

namespace {

std::mutex g_mu;
std::vector<tk::LogLine> g_lines;
std::vector<tk::SeqEntry> g_seq;
std::atomic<bool> g_record_trace{false};
std::atomic<bool> g_echo{false};

const char *level_name(tk::Level level) {
    switch (level) {
    case tk::Level::err:
        return "ERR";
    case tk::Level::debug:
        return "DBG";
    case tk::Level::trace:
        return "TRC";
    }
    return "?";
}

// The format is checked where the module calls the log functions (their declarations carry the
// printf attribute); this one passes it on.
__attribute__((format(printf, 4, 0))) void add_line(tk::Level level, const char *file, int32_t line,
                                                    const char *fmt, va_list ap) {
    bool echo = g_echo.load();
    if (level == tk::Level::trace && !g_record_trace.load() && !echo) {
        return;
    }
    std::string text;
    if (fmt == nullptr) {
        tk::detail::record_misuse("log", "log call with a null format");
    } else {
        va_list copy;
        va_copy(copy, ap);
        int n = std::vsnprintf(nullptr, 0, fmt, copy);
        va_end(copy);
        if (n > 0) {
            text.resize(static_cast<size_t>(n) + 1);
            // Measured just above with the same format and arguments: it fits exactly.
            (void)std::vsnprintf(&text[0], text.size(), fmt, ap);
            text.resize(static_cast<size_t>(n));
        }
    }
    uint64_t at = tk::now_ms();
    std::string where = file != nullptr ? file : "";
    if (echo) {
        // The echo is for a person reading the test output; the line is recorded regardless.
        (void)std::fprintf(stderr, "[%s %llu.%03u %s:%d] %s\n", level_name(level),
                           static_cast<unsigned long long>(at / 1000),
                           static_cast<unsigned>(at % 1000), where.c_str(), static_cast<int>(line),
                           text.c_str());
    }
    if (level == tk::Level::trace && !g_record_trace.load()) {
        return;
    }
    std::lock_guard<std::mutex> lock(g_mu);
    g_lines.push_back(tk::LogLine{level, std::move(text), std::move(where), line, at});
}

int32_t add_seq(bool report, const char *module, uint32_t seq, uint32_t kind, va_list ap) {
    tk::SeqEntry e{report, module != nullptr ? module : "", seq, kind, 0, ""};
    switch (kind) {
    // NOLINTNEXTLINE(bugprone-branch-clone): they read different types (signed, unsigned)
    case VEXO_SEQ_NONE:
    case VEXO_SEQ_CODE:
        e.value = va_arg(ap, int32_t);
        break;
    case VEXO_SEQ_TIME:
        e.value = va_arg(ap, uint32_t);
        break;
    case VEXO_SEQ_TEXT: {
        const char *text = va_arg(ap, const char *);
        if (text == nullptr) {
            tk::detail::record_misuse("log", "sequence entry " + std::to_string(seq) +
                                                 " with a null text");
        } else {
            e.text = text;
        }
        break;
    }
    default:
        tk::detail::record_misuse("log", "sequence entry " + std::to_string(seq) +
                                             " with unknown kind " + std::to_string(kind));
        return -1;
    }
    if (module == nullptr) {
        tk::detail::record_misuse("log", "sequence entry with a null module");
    }
    if (g_echo.load()) {
        // The echo is for a person reading the test output; the entry is recorded regardless.
        (void)std::fprintf(stderr, "[SEQ%s %s %u kind %u] %lld %s\n", report ? " report" : "",
                           e.module.c_str(), seq, kind, static_cast<long long>(e.value),
                           e.text.c_str());
    }
    std::lock_guard<std::mutex> lock(g_mu);
    g_seq.push_back(std::move(e));
    return 0;
}

} // namespace

namespace tk::detail {

void reset_logs() {
    const char *env = std::getenv("VEXO_TEST_LOG");
    g_echo.store(env != nullptr && std::strcmp(env, "1") == 0);
    g_record_trace.store(false);
    std::lock_guard<std::mutex> lock(g_mu);
    g_lines.clear();
    g_seq.clear();
}

} // namespace tk::detail

namespace tk {

std::vector<LogLine> logs() {
    std::lock_guard<std::mutex> lock(g_mu);
    return g_lines;
}

size_t count_logs(Level level, const std::string &text) {
    std::lock_guard<std::mutex> lock(g_mu);
    size_t n = 0;
    for (const LogLine &l : g_lines) {
        if (l.level == level && l.text == text) {
            ++n;
        }
    }
    return n;
}

bool has_log(Level level, const std::string &part) {
    std::lock_guard<std::mutex> lock(g_mu);
    for (const LogLine &l : g_lines) {
        if (l.level == level && l.text.find(part) != std::string::npos) {
            return true;
        }
    }
    return false;
}

void record_trace(bool on) {
    g_record_trace.store(on);
}

void clear_logs() {
    std::lock_guard<std::mutex> lock(g_mu);
    g_lines.clear();
}

std::vector<SeqEntry> seq_log() {
    std::lock_guard<std::mutex> lock(g_mu);
    return g_seq;
}

std::vector<SeqEntry> seq_entries(uint32_t seq) {
    std::lock_guard<std::mutex> lock(g_mu);
    std::vector<SeqEntry> out;
    for (const SeqEntry &e : g_seq) {
        if (e.seq == seq) {
            out.push_back(e);
        }
    }
    return out;
}

} // namespace tk

extern "C" {

void PrintErrLog(const char *file, int32_t line, const char *fmt, ...) {
    tk::detail::count("PrintErrLog");
    va_list ap;
    va_start(ap, fmt);
    add_line(tk::Level::err, file, line, fmt, ap);
    va_end(ap);
}

void PrintDebugLog(const char *file, int32_t line, const char *fmt, ...) {
    tk::detail::count("PrintDebugLog");
    va_list ap;
    va_start(ap, fmt);
    add_line(tk::Level::debug, file, line, fmt, ap);
    va_end(ap);
}

void PrintTraceLog(const char *file, int32_t line, const char *fmt, ...) {
    tk::detail::count("PrintTraceLog");
    va_list ap;
    va_start(ap, fmt);
    add_line(tk::Level::trace, file, line, fmt, ap);
    va_end(ap);
}

int32_t log_seq_insert_log(const char *module, uint32_t seq, uint32_t kind, ...) {
    if (auto scripted = tk::detail::enter("log_seq_insert_log")) {
        return *scripted;
    }
    va_list ap;
    va_start(ap, kind);
    int32_t rc = add_seq(false, module, seq, kind, ap);
    va_end(ap);
    return rc;
}

int32_t log_seq_insert_report_log(const char *module, uint32_t seq, uint32_t kind, ...) {
    if (auto scripted = tk::detail::enter("log_seq_insert_report_log")) {
        return *scripted;
    }
    va_list ap;
    va_start(ap, kind);
    int32_t rc = add_seq(true, module, seq, kind, ap);
    va_end(ap);
    return rc;
}

} // extern "C"
