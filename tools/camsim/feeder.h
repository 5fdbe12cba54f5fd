// Plays a media source into the host kit's ring buffer at the stream's own pace on the kit
// clock, as a camera's encoder would, on a thread of its own.
#ifndef VEXO_CAMSIM_FEEDER_H
#define VEXO_CAMSIM_FEEDER_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>

#include "media_source.h"
#include "snapshot.h"

namespace camsim {

class Feeder {
  public:
    /// snapshot may be null; it is fed every video frame.
    Feeder(std::unique_ptr<MediaSource> source, SnapshotEncoder *snapshot);
    ~Feeder();

    /// Starts playing: the first frame gets the kit time of this call.
    void start();
    /// Stops and joins the thread.
    void stop();

    uint64_t video_frames() const { return video_frames_; }
    uint64_t audio_frames() const { return audio_frames_; }
    /// Empty while the source reads well; the reason it stopped otherwise.
    std::string error() const;

  private:
    void run();

    std::unique_ptr<MediaSource> source_;
    SnapshotEncoder *snapshot_;
    std::thread thread_;
    std::atomic<bool> stop_{false};
    std::atomic<uint64_t> video_frames_{0};
    std::atomic<uint64_t> audio_frames_{0};
    mutable std::mutex error_mu_;
    std::string error_;
};

} // namespace camsim

#endif
