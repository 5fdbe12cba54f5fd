/// Built segments and pictures kept in memory, least recently used first out, bounded in
/// bytes. Thread-safe.
#ifndef VEXO_PLAYBACK_SEGMENT_CACHE_H
#define VEXO_PLAYBACK_SEGMENT_CACHE_H

#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace vexo_playback {

using Blob = std::shared_ptr<const std::vector<uint8_t>>;

class SegmentCache {
  public:
    explicit SegmentCache(size_t max_bytes) : max_bytes_(max_bytes) {}

    /// The entry under key, now the most recently used; null when there is none.
    Blob find(const std::string &key);
    /// Keeps value under key (replacing one there), then drops the least recently used
    /// entries until the total fits. A value larger than the whole cache is not kept.
    void put(const std::string &key, Blob value);

    size_t bytes() const;
    size_t entries() const;

  private:
    struct Item {
        std::string key;
        Blob value;
    };
    void erase(std::list<Item>::iterator it);

    const size_t max_bytes_;
    mutable std::mutex mutex_;
    std::list<Item> order_; // most recently used first
    std::map<std::string, std::list<Item>::iterator> index_;
    size_t bytes_ = 0;
};

} // namespace vexo_playback

#endif
