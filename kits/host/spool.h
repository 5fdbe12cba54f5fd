/// The outage spool: a directory of requests the cloud could not take yet, oldest first.
///
/// Each item is its own file, written as the key-value store writes a record (a private
/// temporary file, fsync, rename, fsync of the directory), so a crash leaves an item whole or
/// absent; temporary files of an interrupted write are removed when the spool opens. Items are
/// named by a sequence number that only grows, so the order survives a restart. An item that
/// is damaged (short, bad header, bad checksum) is discarded with a log line, never handed out.
///
/// Bounds: bytes on disk and the age of the oldest item (kit clock). Over a bound the oldest
/// whole recording goes first: its start, its media files and its stop, grouped by the
/// recording's start time; every other item is a group of its own. The recording still being
/// appended to (the newest, without a stop) loses its oldest media files instead, so what
/// follows still has its start. A dropped recording is reported by a gap item queued behind
/// the rest; the report, naming the items, is on disk before they are removed, and a spool
/// that opens to find a report's items still there removes them. Gap reports themselves are
/// never dropped by the bounds. Thread-safe.
#ifndef VEXO_HOST_SPOOL_H
#define VEXO_HOST_SPOOL_H

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "file_system.h"
#include "spool_item.h"

namespace hostkit::spool {

/// Footage the spool dropped: one recording's items, or its oldest media files.
struct Gap {
    uint32_t recording = 0;  ///< the recording's start time
    uint32_t from = 0;       ///< seconds: the first dropped item's begin
    uint32_t to = 0;         ///< the last dropped item's end
    const char *reason = ""; ///< "spool full" or "too old"
    uint64_t bytes = 0;      ///< media bytes dropped
};

struct Config {
    std::string dir;
    uint64_t max_bytes = uint64_t{256} << 20;
    uint64_t max_age_ms = uint64_t{24} * 3600 * 1000;
    /// The request that reports a gap to the cloud; null: gaps are only logged.
    std::function<CloudRequest(const Gap &)> gap_request;
    /// The calls items are written and removed through; null for the real disk.
    FileSystem *fs = nullptr;
};

struct Stats {
    uint64_t items = 0;
    uint64_t bytes = 0;     ///< on disk
    uint64_t oldest_ms = 0; ///< kit time the oldest item was queued; 0 when empty
    uint64_t sent = 0;      ///< items removed as delivered since the spool opened
    uint64_t dropped = 0;   ///< items dropped: bounds, refusals, damage
};

class Spool {
  public:
    /// Makes the directory if needed, removes temporary files and damaged items, and loads the
    /// rest in order. Null with *error when the directory cannot be made or listed.
    static std::unique_ptr<Spool> open(Config config, std::string *error);

    /// Queues a request durably at the tail; info gives kind, recording and span (the rest is
    /// set here). Applies the bounds afterwards. False (logged) when the item could not be
    /// written or its directory not flushed: then nothing was queued.
    bool append(ItemInfo info, const CloudRequest &request, uint64_t now_ms);

    /// Reads the oldest item whole and holds it (the bounds leave it alone) until remove() or
    /// release(). nullopt when the spool is empty. A damaged item is discarded on the way.
    std::optional<Item> take_oldest();
    /// The held item is gone for good: delivered (counted as sent) or refused (dropped).
    void remove(uint64_t seq, bool delivered);
    /// The held item stays queued, first in line.
    void release(uint64_t seq);

    /// Drops what is over the bounds (age first, then bytes) and queues the gap reports.
    void enforce_bounds(uint64_t now_ms);

    bool empty() const;
    Stats stats() const;
    const std::string &dir() const { return config_.dir; }

  private:
    explicit Spool(Config config);
    void load();
    bool write_item(const ItemInfo &info, const CloudRequest &request);
    bool append_locked(ItemInfo info, const CloudRequest &request, uint64_t now_ms);
    void enforce_locked(uint64_t now_ms);
    void erase_locked(uint64_t seq);
    using Index = std::map<uint64_t, ItemInfo>;
    /// The oldest item of items the bounds may drop (neither held nor a gap report), or
    /// items.end().
    Index::iterator oldest_droppable(Index &items) const;
    /// The newest recording's start time when it has no stop queued; 0 otherwise.
    static uint32_t open_recording(const Index &items);
    /// A gap being summed up while the bounds drop items, per recording and reason.
    struct PendingGap {
        Gap gap;
        bool stopped = false;       ///< its stop was dropped: the end is the stop's
        std::vector<uint64_t> seqs; ///< the items it reports
    };
    using PendingGaps = std::map<std::pair<uint32_t, std::string>, PendingGap>;
    /// Takes the group of the item at it (or only that media item when `only_item`) out of
    /// `left` into *doomed and *bytes, adding to the gaps of this pass.
    void plan_drop(Index &left, Index::iterator it, bool only_item, const char *reason,
                   PendingGaps *gaps, std::vector<uint64_t> *doomed, uint64_t *bytes) const;
    /// Queues the report of a gap, naming its items. False when it could not be written.
    bool report_gap(const PendingGap &pending, uint64_t now_ms);

    Config config_;
    FileSystem &fs_;
    mutable std::mutex mu_;
    std::map<uint64_t, ItemInfo> index_;
    uint64_t bytes_ = 0;
    uint64_t next_seq_ = 1;
    uint64_t held_ = 0; ///< seq of the item handed out; 0 for none
    uint64_t sent_ = 0;
    uint64_t dropped_ = 0;
};

} // namespace hostkit::spool

#endif
