// Fuzz target: the media-file parser and checks behind `vexo-media verify`.
//
// The input is one uploaded media file. It is parsed in memory, each entry's plain payload
// is taken with a fixed key, and the file is verified from disk (a scratch file made once per
// process) as the tool does. The parse must account for every byte it accepts, and the
// verification must count the entries the parse found.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "media_format.h"

namespace {

constexpr vexo_media::Key kKey = {'0', '1', '2', '3', '4', '5', '6', '7',
                                  '8', '9', 'a', 'b', 'c', 'd', 'e', 'f'};
std::string g_path;

void fail(const char *what) {
    (void)std::fprintf(stderr, "media_parse_fuzz: %s\n", what);
    std::abort();
}

void remove_scratch() {
    (void)unlink(g_path.c_str());
}

void write_scratch(const uint8_t *data, size_t size) {
    if (g_path.empty()) {
        char pattern[] = "/tmp/vexo-fuzz-media-XXXXXX";
        const int fd = mkstemp(pattern);
        if (fd < 0) {
            fail("cannot make a scratch file");
        }
        (void)close(fd);
        g_path = pattern;
        (void)std::atexit(remove_scratch);
    }
    FILE *f = std::fopen(g_path.c_str(), "wb");
    if (f == nullptr || (size > 0 && std::fwrite(data, 1, size, f) != size) ||
        std::fclose(f) != 0) {
        fail("cannot write the scratch file");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::vector<uint8_t> bytes(data, data + size);
    std::vector<vexo_media::Entry> entries;
    vexo_media::Fault fault;
    const bool whole = vexo_media::parse("fuzz.media", bytes, &entries, &fault);
    uint64_t end = 0;
    for (const vexo_media::Entry &entry : entries) {
        if (entry.offset != end || entry.payload.size() != entry.length) {
            fail("entries do not follow each other");
        }
        end = entry.offset + vexo_media::kHeaderSize + entry.length;
        std::vector<uint8_t> plain;
        if (vexo_media::plain_payload(kKey, entry, &plain) &&
            !vexo_media::is_encrypted(entry.type) && plain != entry.payload) {
            fail("a plain entry's payload changed");
        }
    }
    if (end > size || (whole && end != size) || (!whole && fault.offset < end)) {
        fail("the parse does not account for the file's bytes");
    }

    write_scratch(data, size);
    const vexo_media::VerifyReport report = vexo_media::verify_files({g_path}, &kKey);
    // A file cut short, damaged or empty is always a fault.
    const bool parsed_clean = whole && !entries.empty();
    if (report.files != 1 || report.entries != entries.size() || report.bytes != size ||
        (!parsed_clean && report.faults.empty())) {
        fail("verification disagrees with the parse");
    }
    return 0;
}
