/// The byte-bounded LRU of built segments and pictures.
#include "segment_cache.h"

namespace vexo_playback {

Blob SegmentCache::find(const std::string &key) {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto found = index_.find(key);
    if (found == index_.end()) {
        return nullptr;
    }
    order_.splice(order_.begin(), order_, found->second);
    return found->second->value;
}

void SegmentCache::put(const std::string &key, Blob value) {
    if (!value) {
        return;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    const auto found = index_.find(key);
    if (found != index_.end()) {
        erase(found->second);
    }
    if (value->size() > max_bytes_) {
        return;
    }
    bytes_ += value->size();
    order_.push_front(Item{key, std::move(value)});
    index_[key] = order_.begin();
    while (bytes_ > max_bytes_ && !order_.empty()) {
        erase(std::prev(order_.end()));
    }
}

void SegmentCache::erase(std::list<Item>::iterator it) {
    bytes_ -= it->value->size();
    index_.erase(it->key);
    order_.erase(it);
}

size_t SegmentCache::bytes() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return bytes_;
}

size_t SegmentCache::entries() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return order_.size();
}

} // namespace vexo_playback
