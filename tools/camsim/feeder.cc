// The feeding thread.
#include "feeder.h"

#include <chrono>

#include "host_kit.h"
#include "vexo_ring_buffer.h"

namespace camsim {
namespace {

/// Longest stretch of kit time the feeder sleeps at once, so stop() is heard soon.
constexpr uint64_t kMaxSleepKitMs = 50;

} // namespace

Feeder::Feeder(std::unique_ptr<MediaSource> source, SnapshotEncoder *snapshot)
    : source_(std::move(source)), snapshot_(snapshot) {}

Feeder::~Feeder() {
    stop();
}

void Feeder::start() {
    stop_ = false;
    thread_ = std::thread([this] { run(); });
}

void Feeder::stop() {
    stop_ = true;
    if (thread_.joinable()) {
        thread_.join();
    }
}

std::string Feeder::error() const {
    std::lock_guard<std::mutex> lock(error_mu_);
    return error_;
}

void Feeder::run() {
    const uint64_t base_ms = hostkit::now_ms();
    MediaFrame frame;
    while (!stop_) {
        std::string why;
        if (!source_->next(&frame, &why)) {
            std::lock_guard<std::mutex> lock(error_mu_);
            error_ = why.empty() ? "the media source ended" : why;
            return;
        }
        const uint64_t due = base_ms + frame.time_ms;
        // Wait for the frame's moment in small steps, so a stop is not held up.
        while (!stop_ && hostkit::now_ms() < due) {
            const uint64_t now = hostkit::now_ms();
            const uint64_t step_kit = due - now;
            hostkit::sleep_until_ms(now + std::min<uint64_t>(step_kit, kMaxSleepKitMs));
        }
        if (stop_) {
            return;
        }
        const uint32_t type = !frame.video ? VEXO_FRAME_AUDIO
                              : frame.key  ? VEXO_FRAME_I
                                           : VEXO_FRAME_P;
        // pts on the 90 kHz clock the media parameters announce.
        hostkit::ring_push(frame.video ? VEXO_STREAM_MAIN : VEXO_STREAM_AUDIO, type,
                           frame.data.data(), static_cast<uint32_t>(frame.data.size()), due * 90,
                           due);
        if (frame.video) {
            ++video_frames_;
            if (snapshot_ != nullptr) {
                snapshot_->feed(frame);
            }
        } else {
            ++audio_frames_;
        }
    }
}

} // namespace camsim
