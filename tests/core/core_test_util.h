// Shorthands shared by the core tests.
#ifndef VEXO_CORE_TEST_UTIL_H
#define VEXO_CORE_TEST_UTIL_H

#include <algorithm>
#include <initializer_list>
#include <string>

#include "kit_fixture.h"

namespace core_test {
inline size_t err(const std::string &text) {
    return tk::count_logs(tk::Level::err, text);
}
inline size_t dbg(const std::string &text) {
    return tk::count_logs(tk::Level::debug, text);
}
/// The module's sequence entries with those numbers, in order, as "seq:R|L:kind:value ".
inline std::string seqs(std::initializer_list<uint32_t> wanted) {
    std::string out;
    for (const tk::SeqEntry &e : tk::seq_log()) {
        if (std::find(wanted.begin(), wanted.end(), e.seq) != wanted.end()) {
            out += std::to_string(e.seq) + (e.report ? ":R:" : ":L:") + std::to_string(e.kind) +
                   ":" + std::to_string(e.value) + (e.module == "cloud_storage" ? " " : "? ");
        }
    }
    return out;
}
} // namespace core_test

#endif
