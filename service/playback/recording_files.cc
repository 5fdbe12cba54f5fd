/// Reading a recording's media objects into memory for playback.
#include "recording_files.h"

namespace vexo_playback {

vexo_tool::MediaFiles recording_files(const vexo_cloud::Service &service,
                                      const vexo_cloud::PlaybackSource &source) {
    vexo_tool::MediaFiles files;
    files.names = source.names;
    const std::vector<std::string> objects = source.objects;
    const vexo_cloud::Service *from = &service;
    files.read = [from, objects](size_t index, std::vector<uint8_t> *bytes,
                                 vexo_media::Fault *fault) {
        bytes->clear();
        bool too_big = false;
        const bool found = from->read_media(objects.at(index), [&](const char *data, size_t size) {
            if (bytes->size() + size > vexo_media::kMaxFileBytes) {
                too_big = true;
                return false;
            }
            bytes->insert(bytes->end(), data, data + size);
            return true;
        });
        if (found && !too_big) {
            return true;
        }
        bytes->clear();
        fault->file = objects.at(index);
        fault->offset = 0;
        fault->message = found ? "the file is larger than playback reads" : "the file is missing";
        return false;
    };
    return files;
}

std::optional<vexo_media::Key> recording_key(const vexo_cloud::PlaybackSource &source) {
    vexo_media::Key key{};
    if (!vexo_media::key_from_text(source.key, &key)) {
        return std::nullopt;
    }
    return key;
}

} // namespace vexo_playback
