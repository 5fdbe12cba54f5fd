// Annex-B access units: splitting at start codes, telling NAL unit types apart per codec, and
// the rewrite that puts the parameter sets in front of every key frame.
#include "annexb.h"

#include <utility>

namespace camsim {
namespace {

constexpr uint8_t kStartCode[4] = {0, 0, 0, 1};

using ParameterSets = std::array<std::vector<std::vector<uint8_t>>, 3>;

// One NAL unit inside a buffer, without its start code.
struct Nal {
    const uint8_t *data;
    size_t size;
};

// Splits an Annex-B byte stream at its 3- and 4-byte start codes. A NAL unit never ends in a
// zero byte, so zeros before a start code are the start code's or trailing padding.
std::vector<Nal> split_annexb(const uint8_t *data, size_t size) {
    std::vector<Nal> nals;
    bool inside = false;
    size_t begin = 0;
    auto close_at = [&](size_t end) {
        while (end > begin && data[end - 1] == 0) {
            --end;
        }
        if (inside && end > begin) {
            nals.push_back({data + begin, end - begin});
        }
    };
    size_t i = 0;
    while (i + 3 <= size) {
        if (data[i] == 0 && data[i + 1] == 0 && data[i + 2] == 1) {
            close_at(i);
            i += 3;
            begin = i;
            inside = true;
        } else {
            ++i;
        }
    }
    close_at(size);
    return nals;
}

bool looks_like_annexb(const uint8_t *data, size_t size) {
    return (size >= 3 && data[0] == 0 && data[1] == 0 && data[2] == 1) ||
           (size >= 4 && data[0] == 0 && data[1] == 0 && data[2] == 0 && data[3] == 1);
}

int nal_type(VideoCodec codec, const Nal &nal) {
    return codec == VideoCodec::h264 ? (nal.data[0] & 0x1F) : ((nal.data[0] >> 1) & 0x3F);
}

// Position of a parameter set in front of a key frame (VPS, SPS, PPS), or -1.
int parameter_set_slot(VideoCodec codec, int type) {
    if (codec == VideoCodec::h264) {
        return type == 7 ? 1 : type == 8 ? 2 : -1;
    }
    return type >= 32 && type <= 34 ? type - 32 : -1;
}

bool is_key_nal(VideoCodec codec, int type) {
    return codec == VideoCodec::h264 ? type == 5 : (type >= 16 && type <= 23);
}

bool is_delimiter(VideoCodec codec, int type) {
    return codec == VideoCodec::h264 ? type == 9 : type == 35;
}

void append_nal(const uint8_t *data, size_t size, std::vector<uint8_t> *out) {
    out->insert(out->end(), kStartCode, kStartCode + sizeof kStartCode);
    out->insert(out->end(), data, data + size);
}

// Keeps the parameter sets among nals: all those of one kind replace the ones remembered.
void remember(VideoCodec codec, const std::vector<Nal> &nals, ParameterSets *sets) {
    ParameterSets found;
    for (const Nal &nal : nals) {
        int slot = parameter_set_slot(codec, nal_type(codec, nal));
        if (slot >= 0) {
            found[slot].emplace_back(nal.data, nal.data + nal.size);
        }
    }
    for (size_t slot = 0; slot < found.size(); ++slot) {
        if (!found[slot].empty()) {
            (*sets)[slot] = std::move(found[slot]);
        }
    }
}

} // namespace

void AccessUnitWriter::learn(const uint8_t *data, size_t size) {
    if (data != nullptr && looks_like_annexb(data, size)) {
        remember(codec_, split_annexb(data, size), &sets_);
    }
}

bool AccessUnitWriter::rewrite(const uint8_t *data, size_t size, std::vector<uint8_t> *out,
                               bool *key) {
    std::vector<Nal> nals = split_annexb(data, size);
    if (nals.empty()) {
        return false;
    }
    remember(codec_, nals, &sets_);
    *key = false;
    for (const Nal &nal : nals) {
        *key = *key || is_key_nal(codec_, nal_type(codec_, nal));
    }
    out->clear();
    out->reserve(size + 64);
    if (*key) {
        for (const auto &slot : sets_) {
            for (const auto &set : slot) {
                append_nal(set.data(), set.size(), out);
            }
        }
    }
    for (const Nal &nal : nals) {
        int type = nal_type(codec_, nal);
        if (is_delimiter(codec_, type) || (*key && parameter_set_slot(codec_, type) >= 0)) {
            continue;
        }
        append_nal(nal.data, nal.size, out);
    }
    return true;
}

} // namespace camsim
