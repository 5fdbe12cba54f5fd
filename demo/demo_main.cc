// A short demonstration of the module on the test kit: a simulated camera stream (25 fps,
// key frame every 2 s, G.711 audio), a cloud in event mode that hands out a new key, one
// motion event. It prints what the module told the cloud and uploaded, checks that every
// uploaded media file is well formed and that every encrypted entry decrypts to the frame
// that went in, and writes the files to an output directory.

#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "core/cloud_storage_internal.h"
#include "media_file.h"
#include "test_kit.h"

namespace {

constexpr char kStartApi[] = "vexo.device.ipc.media.storage.notify.upload.start";
constexpr char kStopApi[] = "vexo.device.ipc.media.storage.notify.upload.stop";
constexpr char kKey[] = "demoKey0123456789";

bool wait_for(const std::function<bool()> &done, int real_ms) {
    for (int waited = 0; waited < real_ms; waited += 5) {
        if (done()) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return done();
}

/// Checks one uploaded file against the frames that went in; returns 1 when it fails.
int verify_file(const tk::Upload &upload, int *frames) {
    std::vector<media_file::Entry> entries;
    const std::string fault =
        media_file::verify(upload, reinterpret_cast<const uint8_t *>(kKey), &entries);
    int keys = 0;
    int audio = 0;
    for (const media_file::Entry &e : entries) {
        keys += e.type == VEXO_FRAME_I ? 1 : 0;
        audio += e.type == VEXO_FRAME_AUDIO ? 1 : 0;
    }
    *frames += static_cast<int>(entries.size());
    std::printf("  %-24s %7zu bytes  %3zu entries (%d key, %d audio)  %s\n",
                upload.file_name.c_str(), upload.bytes.size(), entries.size(), keys, audio,
                fault.empty() ? "ok" : fault.c_str());
    return fault.empty() ? 0 : 1;
}

} // namespace

int main(int argc, char **argv) {
    const std::string out_dir = argc > 1 ? argv[1] : "demo-output";

    tk::reset();
    tk::set_time(1763800000); // a November afternoon, UTC
    tk::set_default_restriction(0, 12, 4);
    tk::set_default_storage_config(0, tk::make_storage_config("event", 12, 4, 30, 20));
    // No key is stored yet: the cloud hands one out on the first start notification.
    tk::queue_post_answer(kStartApi, 0,
                          std::string("{\"needUpdate\":true,\"encryptKey\":\"") + kKey + "\"}");
    tk::start_stream();

    const vexo_ipc_media_info_t media = tk::sample_media_info();
    const vexo_ipc_cloud_storage_hooks_t hooks = {};
    std::printf("init: %d\n", vexo_ipc_cloud_storage_init(&media, &hooks));
    if (!wait_for([] { return vexo_ipc_cloud_storage_get_if_have_config() == 1; }, 5000)) {
        std::printf("the module did not obtain its configuration\n");
        return 1;
    }
    std::printf("store mode: %d (1 = event), ready: %d\n", vexo_ipc_cloud_storage_get_store_mode(),
                vexo_ipc_cloud_storage_get_ready());

    tk::advance(3000); // let the ring buffer fill beyond the pre-record time
    std::printf("motion event start: %d\n", vexo_ipc_cloud_storage_event_start());
    const bool finished = wait_for([] { return !tk::posts_of(kStopApi).empty(); }, 20000);
    vexo_ipc_cloud_storage_uninit();
    tk::wait_threads_exited(10000);
    if (!finished) {
        std::printf("the recording did not finish\n");
        return 1;
    }

    std::printf("\ncloud notifications:\n");
    for (const tk::Post &post : tk::posts()) {
        std::printf("  %s\n    %s\n", post.api.c_str(), post.body.c_str());
    }

    std::printf("\nuploaded media files:\n");
    std::filesystem::create_directories(out_dir);
    int bad = 0;
    int frames = 0;
    const std::vector<tk::Upload> uploads = tk::uploads();
    for (const tk::Upload &upload : uploads) {
        bad += verify_file(upload, &frames);
        std::ofstream(out_dir + "/" + upload.file_name, std::ios::binary)
            .write(reinterpret_cast<const char *>(upload.bytes.data()),
                   static_cast<std::streamsize>(upload.bytes.size()));
    }
    std::printf("\n%zu files, %d frame entries written to %s/: %s\n", uploads.size(), frames,
                out_dir.c_str(),
                bad == 0 && !uploads.empty() ? "every entry matches its source frame"
                                             : "MISMATCHES FOUND");
    return bad == 0 && !uploads.empty() ? 0 : 1;
}
