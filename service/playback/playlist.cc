/// Writing a recording's HLS playlist (version 3) from its files' time stamps.
#include "playlist.h"

#include <algorithm>
#include <cstdio>

namespace vexo_playback {

std::vector<uint64_t> segment_durations(const std::vector<FileTimes> &files,
                                        const std::vector<uint64_t> &elapsed, uint64_t frame_ms) {
    const size_t count = files.size();
    // Where each file starts, ms: its first entry, or - for a file that could not be read -
    // where its name puts it against the first readable file.
    std::optional<size_t> anchor;
    for (size_t i = 0; i < count; ++i) {
        if (files[i].readable) {
            anchor = i;
            break;
        }
    }
    std::vector<uint64_t> starts(count, 0);
    for (size_t i = 0; i < count; ++i) {
        if (files[i].readable) {
            starts[i] = files[i].first;
        } else if (anchor) {
            const int64_t shift =
                (static_cast<int64_t>(elapsed.at(i)) - static_cast<int64_t>(elapsed.at(*anchor))) *
                1000;
            const int64_t at = static_cast<int64_t>(files[*anchor].first) + shift;
            starts[i] = at < 0 ? 0 : static_cast<uint64_t>(at);
        } else {
            starts[i] = elapsed.at(i) * 1000;
        }
    }
    std::vector<uint64_t> durations(count, 0);
    for (size_t i = 0; i + 1 < count; ++i) {
        durations[i] = starts[i + 1] > starts[i] ? starts[i + 1] - starts[i] : 0;
    }
    if (count > 0) {
        const FileTimes &last = files[count - 1];
        const uint64_t end =
            (last.readable ? std::max(last.last, starts[count - 1]) : starts[count - 1]) + frame_ms;
        durations[count - 1] = end - starts[count - 1];
    }
    return durations;
}

std::string playlist_text(const std::vector<uint64_t> &durations_ms, bool closed) {
    uint64_t longest = 0;
    for (const uint64_t ms : durations_ms) {
        longest = std::max(longest, ms);
    }
    const uint64_t target = std::max<uint64_t>(1, (longest + 999) / 1000);
    std::string text = "#EXTM3U\n#EXT-X-VERSION:3\n";
    text += "#EXT-X-TARGETDURATION:" + std::to_string(target) + "\n";
    text += "#EXT-X-MEDIA-SEQUENCE:0\n";
    text += std::string("#EXT-X-PLAYLIST-TYPE:") + (closed ? "VOD" : "EVENT") + "\n";
    for (size_t i = 0; i < durations_ms.size(); ++i) {
        char line[64];
        std::snprintf(line, sizeof line, "#EXTINF:%llu.%03llu,\n",
                      static_cast<unsigned long long>(durations_ms[i] / 1000),
                      static_cast<unsigned long long>(durations_ms[i] % 1000));
        text += line;
        text += "segments/" + std::to_string(i) + ".ts\n";
    }
    if (closed) {
        text += "#EXT-X-ENDLIST\n";
    }
    return text;
}

} // namespace vexo_playback
