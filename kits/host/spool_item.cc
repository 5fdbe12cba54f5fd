// The spool's item files: encoding, and reading back with every check.
#include "spool_item.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace hostkit::spool {
namespace {

constexpr char kMagic[4] = {'V', 'X', 'S', 'P'};
constexpr uint16_t kVersion = 2;
constexpr uint16_t kVersionWithoutDrops = 1;
constexpr size_t kFixedSize = 52;
constexpr size_t kHeadCrcOffset = 48;
constexpr char kSuffix[] = ".item";
constexpr size_t kSeqDigits = 20;
/// A head is a method, a path, a query, a few headers and a gap report's dropped items (tens
/// of thousands at most): anything larger is damage.
constexpr uint32_t kMaxHeadBytes = 1024 * 1024;
constexpr uint32_t kMaxHeaders = 64;

constexpr std::array<uint32_t, 256> make_crc_table() {
    std::array<uint32_t, 256> table{};
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t c = i;
        for (int k = 0; k < 8; ++k) {
            c = (c & 1) != 0 ? 0xEDB88320u ^ (c >> 1) : c >> 1;
        }
        table[i] = c;
    }
    return table;
}
constexpr std::array<uint32_t, 256> kCrcTable = make_crc_table();

void put16(std::string &out, uint16_t v) {
    out += static_cast<char>(v & 0xff);
    out += static_cast<char>(v >> 8);
}

void put32(std::string &out, uint32_t v) {
    for (int i = 0; i < 4; ++i) {
        out += static_cast<char>((v >> (8 * i)) & 0xff);
    }
}

void put64(std::string &out, uint64_t v) {
    for (int i = 0; i < 8; ++i) {
        out += static_cast<char>((v >> (8 * i)) & 0xff);
    }
}

void put_text(std::string &out, const std::string &text) {
    put32(out, static_cast<uint32_t>(text.size()));
    out += text;
}

uint32_t get32(const uint8_t *p) {
    return uint32_t{p[0]} | uint32_t{p[1]} << 8 | uint32_t{p[2]} << 16 | uint32_t{p[3]} << 24;
}

uint64_t get64(const uint8_t *p) {
    return uint64_t{get32(p)} | uint64_t{get32(p + 4)} << 32;
}

/// Reads the head's fields in order; any read past its end fails the whole head.
class HeadReader {
  public:
    HeadReader(const uint8_t *data, size_t len) : data_(data), len_(len) {}
    bool u32(uint32_t *out) {
        if (len_ - pos_ < 4) {
            return false;
        }
        *out = get32(data_ + pos_);
        pos_ += 4;
        return true;
    }
    bool u64(uint64_t *out) {
        if (len_ - pos_ < 8) {
            return false;
        }
        *out = get64(data_ + pos_);
        pos_ += 8;
        return true;
    }
    bool text(std::string *out) {
        uint32_t n = 0;
        if (!u32(&n) || len_ - pos_ < n) {
            return false;
        }
        out->assign(reinterpret_cast<const char *>(data_ + pos_), n);
        pos_ += n;
        return true;
    }
    bool at_end() const { return pos_ == len_; }

  private:
    const uint8_t *data_;
    size_t len_;
    size_t pos_ = 0;
};

bool read_at(int fd, uint64_t offset, uint8_t *out, size_t len) {
    size_t got = 0;
    while (got < len) {
        const ssize_t n = pread(fd, out + got, len - got, static_cast<off_t>(offset + got));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        got += static_cast<size_t>(n);
    }
    return true;
}

bool known_kind(uint16_t kind) {
    return kind >= static_cast<uint16_t>(Kind::kStart) && kind <= static_cast<uint16_t>(Kind::kGap);
}

} // namespace

const char *kind_name(Kind kind) {
    switch (kind) {
    case Kind::kStart:
        return "start";
    case Kind::kStop:
        return "stop";
    case Kind::kEvent:
        return "event report";
    case Kind::kMedia:
        return "media";
    case Kind::kAlarm:
        return "alarm";
    case Kind::kGap:
        return "gap report";
    }
    return "?";
}

uint32_t crc32(const void *data, size_t len, uint32_t crc) {
    const uint8_t *p = static_cast<const uint8_t *>(data);
    crc = ~crc;
    for (size_t i = 0; i < len; ++i) {
        crc = kCrcTable[(crc ^ p[i]) & 0xff] ^ (crc >> 8);
    }
    return ~crc;
}

std::string file_name(uint64_t seq) {
    char name[32];
    // NOLINTNEXTLINE(cert-err33-c): 20 digits and ".item" always fit in 32 bytes
    std::snprintf(name, sizeof name, "%020llu%s", static_cast<unsigned long long>(seq), kSuffix);
    return name;
}

std::optional<uint64_t> seq_of(const std::string &name) {
    if (name.size() != kSeqDigits + sizeof kSuffix - 1 ||
        name.compare(kSeqDigits, std::string::npos, kSuffix) != 0) {
        return std::nullopt;
    }
    uint64_t seq = 0;
    for (size_t i = 0; i < kSeqDigits; ++i) {
        const char c = name[i];
        if (c < '0' || c > '9' || seq > (UINT64_MAX - 9) / 10) {
            return std::nullopt;
        }
        seq = seq * 10 + static_cast<uint64_t>(c - '0');
    }
    return seq;
}

std::string encode(const ItemInfo &info, const CloudRequest &request) {
    std::string head;
    put_text(head, request.method);
    put_text(head, request.path);
    put_text(head, request.query);
    put32(head, request.timeout_s);
    uint32_t kept = 0;
    for (const auto &header : request.headers) {
        kept += header.first != "authorization";
    }
    put32(head, kept);
    for (const auto &[name, value] : request.headers) {
        if (name != "authorization") {
            put_text(head, name);
            put_text(head, value);
        }
    }
    put32(head, static_cast<uint32_t>(info.drops.size()));
    for (const uint64_t seq : info.drops) {
        put64(head, seq);
    }
    std::string out;
    out.reserve(kFixedSize + head.size() + request.body.size());
    out.append(kMagic, sizeof kMagic);
    put16(out, kVersion);
    put16(out, static_cast<uint16_t>(info.kind));
    put64(out, info.seq);
    put64(out, info.queued_ms);
    put32(out, info.recording);
    put32(out, info.span_begin);
    put32(out, info.span_end);
    put32(out, static_cast<uint32_t>(head.size()));
    put32(out, static_cast<uint32_t>(request.body.size()));
    put32(out, crc32(request.body.data(), request.body.size()));
    put32(out, crc32(head.data(), head.size(), crc32(out.data(), out.size())));
    out += head;
    out += request.body;
    return out;
}

std::optional<Item> load(int fd, uint64_t file_size, uint64_t expected_seq, bool with_body,
                         std::string *error) {
    uint8_t fixed[kFixedSize];
    if (file_size < kFixedSize || !read_at(fd, 0, fixed, kFixedSize)) {
        *error = "shorter than its header";
        return std::nullopt;
    }
    if (std::memcmp(fixed, kMagic, sizeof kMagic) != 0) {
        *error = "not a spool item (bad magic)";
        return std::nullopt;
    }
    const uint16_t version = static_cast<uint16_t>(fixed[4] | fixed[5] << 8);
    const uint16_t kind = static_cast<uint16_t>(fixed[6] | fixed[7] << 8);
    const uint32_t head_len = get32(fixed + 36);
    const uint32_t body_len = get32(fixed + 40);
    if (version != kVersion && version != kVersionWithoutDrops) {
        *error = "unknown version " + std::to_string(version);
        return std::nullopt;
    }
    if (head_len > kMaxHeadBytes || file_size != kFixedSize + uint64_t{head_len} + body_len) {
        *error = "size " + std::to_string(file_size) + " is not the " +
                 std::to_string(kFixedSize + uint64_t{head_len} + body_len) +
                 " bytes its header announces";
        return std::nullopt;
    }
    std::string head(head_len, '\0');
    if (!read_at(fd, kFixedSize, reinterpret_cast<uint8_t *>(head.data()), head_len)) {
        *error = "cannot read its head";
        return std::nullopt;
    }
    if (crc32(head.data(), head.size(), crc32(fixed, kHeadCrcOffset)) !=
        get32(fixed + kHeadCrcOffset)) {
        *error = "header checksum mismatch";
        return std::nullopt;
    }
    // The checksum held: a wrong kind or sequence number was written so, not damaged.
    if (!known_kind(kind) || get64(fixed + 8) != expected_seq) {
        *error = "kind or sequence number does not belong here";
        return std::nullopt;
    }
    Item item;
    item.info.seq = expected_seq;
    item.info.kind = static_cast<Kind>(kind);
    item.info.queued_ms = get64(fixed + 16);
    item.info.recording = get32(fixed + 24);
    item.info.span_begin = get32(fixed + 28);
    item.info.span_end = get32(fixed + 32);
    item.info.body_bytes = body_len;
    item.info.file_bytes = file_size;
    CloudRequest &req = item.request;
    HeadReader in(reinterpret_cast<const uint8_t *>(head.data()), head.size());
    uint32_t headers = 0;
    if (!in.text(&req.method) || !in.text(&req.path) || !in.text(&req.query) ||
        !in.u32(&req.timeout_s) || !in.u32(&headers) || headers > kMaxHeaders) {
        *error = "head does not parse";
        return std::nullopt;
    }
    for (uint32_t i = 0; i < headers; ++i) {
        std::string name;
        std::string value;
        if (!in.text(&name) || !in.text(&value)) {
            *error = "head does not parse";
            return std::nullopt;
        }
        req.headers[name] = value;
    }
    uint32_t drops = 0;
    if (version == kVersion && (!in.u32(&drops) || drops > head_len / 8)) {
        *error = "head does not parse";
        return std::nullopt;
    }
    item.info.drops.resize(drops);
    for (uint64_t &seq : item.info.drops) {
        if (!in.u64(&seq)) {
            *error = "head does not parse";
            return std::nullopt;
        }
    }
    if (!in.at_end()) {
        *error = "head does not parse";
        return std::nullopt;
    }
    item.info.what = req.method + " " + req.path;
    if (with_body) {
        req.body.assign(body_len, '\0');
        if (!read_at(fd, kFixedSize + uint64_t{head_len},
                     reinterpret_cast<uint8_t *>(req.body.data()), body_len)) {
            *error = "cannot read its body";
            return std::nullopt;
        }
        if (crc32(req.body.data(), req.body.size()) != get32(fixed + 44)) {
            *error = "body checksum mismatch";
            return std::nullopt;
        }
    }
    return item;
}

} // namespace hostkit::spool
