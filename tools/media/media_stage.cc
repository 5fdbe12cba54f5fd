// Media files from a --media store, placed where the commands read files.
#include "media_stage.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "open_media_store.h"
#include "tool_error.h"

namespace vexo_tool {

namespace fs = std::filesystem;

MediaStage::MediaStage(std::string url) : url_(std::move(url)) {}

MediaStage::~MediaStage() {
    if (!temporary_.empty()) {
        std::error_code ignored;
        fs::remove_all(temporary_, ignored);
    }
}

void MediaStage::place(std::vector<Recording> *recordings) {
    if (url_.empty()) {
        return;
    }
    std::unique_ptr<vexo_cloud::MediaStore> store;
    try {
        store = vexo_cloud::open_media_store(url_, "");
    } catch (const std::exception &e) {
        throw ToolError(e.what());
    }
    for (Recording &recording : *recordings) {
        const std::string folder = recording.device + "/" + std::to_string(recording.start_time);
        const std::string local = store->local_path(folder + "/x");
        if (!local.empty()) {
            recording.directory = fs::path(local).parent_path().string();
            continue;
        }
        if (temporary_.empty()) {
            std::string pattern = (fs::temp_directory_path() / "vexo-media-XXXXXX").string();
            if (::mkdtemp(pattern.data()) == nullptr) {
                throw ToolError("cannot make a temporary directory " + pattern);
            }
            temporary_ = pattern;
        }
        recording.directory = temporary_ + "/" + folder;
        fs::create_directories(recording.directory);
        for (const vexo_cloud::MediaFileInfo &file : recording.files) {
            const std::string path = recording.directory + "/" + file.name;
            std::ofstream out(path, std::ios::binary);
            bool there = false;
            try {
                there =
                    store->read(folder + "/" + file.name, [&out](const char *data, size_t size) {
                        out.write(data, static_cast<std::streamsize>(size));
                        return static_cast<bool>(out);
                    });
            } catch (const std::exception &e) {
                throw ToolError("cannot read " + folder + "/" + file.name + ": " + e.what());
            }
            out.close();
            if (!there) {
                fs::remove(path);
            } else if (!out) {
                throw ToolError("cannot write " + path);
            }
        }
    }
}

} // namespace vexo_tool
