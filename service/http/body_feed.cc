/// The hand-over of body pieces between a connection and a blocking reader.
#include "body_feed.h"

namespace vexo_cloud {

BodyFeed::BodyFeed(std::function<void()> ask_next, bool ended)
    : ask_next_(std::move(ask_next)), ended_(ended) {}

bool BodyFeed::read(const BodySink &sink) {
    for (;;) {
        std::string piece;
        {
            std::unique_lock<std::mutex> lock(mutex_);
            if (failed_) {
                return false;
            }
            if (!has_piece_ && ended_) {
                return true;
            }
            if (!has_piece_ && !asked_) {
                asked_ = true;
                lock.unlock();
                ask_next_();
                lock.lock();
            }
            changed_.wait(lock, [this] { return has_piece_ || failed_ || ended_; });
            if (failed_ || !has_piece_) {
                continue;
            }
            piece.swap(piece_);
            has_piece_ = false;
            asked_ = false;
        }
        if (!piece.empty() && !sink(piece.data(), piece.size())) {
            return false;
        }
    }
}

void BodyFeed::deliver(std::string piece, bool last) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        piece_ = std::move(piece);
        has_piece_ = true;
        ended_ = last;
    }
    changed_.notify_all();
}

void BodyFeed::fail() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        failed_ = true;
    }
    changed_.notify_all();
}

} // namespace vexo_cloud
