// The outage spool's directory: durable appends, recovery at open, the oldest item for the
// sender, and the bounds.
#include "spool.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "durable_file.h"
#include "host_internal.h"
#include "unique_fd.h"

namespace hostkit::spool {
namespace {

constexpr char kTooOld[] = "too old";
constexpr char kFull[] = "spool full";

bool is_recording_kind(Kind kind) {
    return kind == Kind::kStart || kind == Kind::kMedia || kind == Kind::kStop;
}

/// Items of one recording go together; every other item is alone.
bool in_recording(const ItemInfo &info) {
    return info.recording != 0 && is_recording_kind(info.kind);
}

bool make_dir(const std::string &path, std::string *error) {
    if (mkdir(path.c_str(), 0700) == 0 || errno == EEXIST) {
        struct stat st {};
        if (stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
            return true;
        }
        *error = path + " is not a directory";
        return false;
    }
    *error = "cannot make " + path + ": " + std::strerror(errno);
    return false;
}

std::string describe(const ItemInfo &info) {
    return std::string(kind_name(info.kind)) + " " + info.what;
}

} // namespace

std::unique_ptr<Spool> Spool::open(Config config, std::string *error) {
    if (!make_dir(config.dir, error)) {
        return nullptr;
    }
    DIR *probe = opendir(config.dir.c_str());
    if (probe == nullptr) {
        *error = "cannot list " + config.dir + ": " + std::strerror(errno);
        return nullptr;
    }
    closedir(probe);
    std::unique_ptr<Spool> spool(new Spool(std::move(config)));
    spool->load();
    return spool;
}

Spool::Spool(Config config)
    : config_(std::move(config)), fs_(config_.fs != nullptr ? *config_.fs : real_file_system()) {}

void Spool::load() {
    std::vector<std::string> names;
    if (DIR *d = opendir(config_.dir.c_str())) {
        while (const struct dirent *entry = readdir(d)) {
            names.emplace_back(entry->d_name);
        }
        closedir(d);
    }
    std::sort(names.begin(), names.end());
    std::lock_guard<std::mutex> lock(mu_);
    for (const std::string &name : names) {
        const std::string path = config_.dir + "/" + name;
        if (name.find(kTempInfix) != std::string::npos) {
            if (fs_.unlink(path) == 0) {
                internal::log_debug("spool: removed unfinished write %s", path.c_str());
            }
            continue;
        }
        const std::optional<uint64_t> seq = seq_of(name);
        if (!seq) {
            continue; // not ours
        }
        next_seq_ = std::max(next_seq_, *seq + 1);
        std::string why;
        UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
        struct stat st {};
        std::optional<Item> item;
        if (fd.get() < 0 || fstat(fd.get(), &st) != 0) {
            why = std::strerror(errno);
        } else {
            item = spool::load(fd.get(), static_cast<uint64_t>(st.st_size), *seq, false, &why);
        }
        if (!item) {
            internal::log_error("spool: discarded damaged item %s: %s", path.c_str(), why.c_str());
            fs_.unlink(path);
            ++dropped_;
            continue;
        }
        bytes_ += item->info.file_bytes;
        index_.emplace(*seq, std::move(item->info));
    }
    // A gap report is written before the items it names are removed: a power cut in between
    // leaves some of them, which go now rather than be sent after their report.
    std::vector<uint64_t> unfinished;
    for (const auto &entry : index_) {
        for (const uint64_t seq : entry.second.drops) {
            if (index_.count(seq) != 0) {
                unfinished.push_back(seq);
            }
        }
    }
    for (const uint64_t seq : unfinished) {
        if (index_.count(seq) == 0) {
            continue; // named by two reports
        }
        internal::log_error("spool: finishing the reported drop of item %llu",
                            static_cast<unsigned long long>(seq));
        erase_locked(seq);
        ++dropped_;
    }
    if (!index_.empty()) {
        internal::log_debug("spool: %zu items (%llu bytes) waiting in %s", index_.size(),
                            static_cast<unsigned long long>(bytes_), config_.dir.c_str());
    }
}

// NOLINTNEXTLINE(readability-make-member-function-const): it writes the spool's directory
bool Spool::write_item(const ItemInfo &info, const CloudRequest &request) {
    const std::string path = config_.dir + "/" + file_name(info.seq);
    const std::string bytes = encode(info, request);
    const DurableWrite written = durable_write(fs_, path, bytes.data(), bytes.size());
    if (written.failed_step != nullptr) {
        internal::log_error("spool: %s of %s failed: %s", written.failed_step, written.temp.c_str(),
                            std::strerror(written.error));
        return false;
    }
    if (written.directory_unsynced) {
        // The item is in place but a power cut could still take it: queued is a promise that
        // it survives, so it is taken back and the append fails like any other failed step.
        internal::log_error("spool: cannot flush directory %s: %s; %s not queued",
                            config_.dir.c_str(), std::strerror(written.error), path.c_str());
        if (fs_.unlink(path) != 0) {
            internal::log_error("spool: cannot take back %s: %s", path.c_str(),
                                std::strerror(errno));
        }
        return false;
    }
    return true;
}

bool Spool::append(ItemInfo info, const CloudRequest &request, uint64_t now_ms) {
    std::lock_guard<std::mutex> lock(mu_);
    if (!append_locked(std::move(info), request, now_ms)) {
        return false;
    }
    enforce_locked(now_ms); // with the new item counted
    return true;
}

bool Spool::append_locked(ItemInfo info, const CloudRequest &request, uint64_t now_ms) {
    info.seq = next_seq_++;
    info.queued_ms = now_ms;
    info.body_bytes = request.body.size();
    info.what = request.method + " " + request.path;
    if (!write_item(info, request)) {
        return false;
    }
    struct stat st {};
    const std::string path = config_.dir + "/" + file_name(info.seq);
    info.file_bytes = stat(path.c_str(), &st) == 0 ? static_cast<uint64_t>(st.st_size) : 0;
    bytes_ += info.file_bytes;
    index_.emplace(info.seq, std::move(info));
    return true;
}

std::optional<Item> Spool::take_oldest() {
    for (;;) {
        uint64_t seq = 0;
        {
            std::lock_guard<std::mutex> lock(mu_);
            if (index_.empty()) {
                return std::nullopt;
            }
            seq = index_.begin()->first;
            held_ = seq;
        }
        // Read outside the lock: a media file can be megabytes.
        const std::string path = config_.dir + "/" + file_name(seq);
        std::string why;
        std::optional<Item> item;
        UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
        struct stat st {};
        if (fd.get() < 0 || fstat(fd.get(), &st) != 0) {
            why = std::strerror(errno);
        } else {
            item = spool::load(fd.get(), static_cast<uint64_t>(st.st_size), seq, true, &why);
        }
        if (item) {
            return item;
        }
        internal::log_error("spool: discarded damaged item %s: %s", path.c_str(), why.c_str());
        std::lock_guard<std::mutex> lock(mu_);
        held_ = 0;
        erase_locked(seq);
        ++dropped_;
    }
}

void Spool::remove(uint64_t seq, bool delivered) {
    std::lock_guard<std::mutex> lock(mu_);
    if (held_ == seq) {
        held_ = 0;
    }
    if (index_.count(seq) == 0) {
        return;
    }
    erase_locked(seq);
    ++(delivered ? sent_ : dropped_);
}

void Spool::release(uint64_t seq) {
    std::lock_guard<std::mutex> lock(mu_);
    if (held_ == seq) {
        held_ = 0;
    }
}

void Spool::erase_locked(uint64_t seq) {
    const auto it = index_.find(seq);
    if (it == index_.end()) {
        return;
    }
    const std::string path = config_.dir + "/" + file_name(seq);
    if (fs_.unlink(path) != 0 && errno != ENOENT) {
        internal::log_error("spool: cannot remove %s: %s", path.c_str(), std::strerror(errno));
    }
    bytes_ -= std::min(bytes_, it->second.file_bytes);
    index_.erase(it);
    // A removal lost in a power cut would only send the item again.
    sync_directory(fs_, config_.dir);
}

Spool::Index::iterator Spool::oldest_droppable(Index &items) const {
    // A gap report is a few bytes and the only word the cloud gets of the footage it stands
    // for: dropping one to make room would turn a reported gap into a silent hole.
    auto it = items.begin();
    while (it != items.end() && (it->first == held_ || it->second.kind == Kind::kGap)) {
        ++it;
    }
    return it;
}

uint32_t Spool::open_recording(const Index &items) {
    uint32_t newest = 0;
    for (auto it = items.rbegin(); it != items.rend(); ++it) {
        if (in_recording(it->second)) {
            newest = it->second.recording;
            break;
        }
    }
    for (const auto &[seq, info] : items) {
        if (newest != 0 && info.recording == newest && info.kind == Kind::kStop) {
            return 0;
        }
    }
    return newest;
}

void Spool::plan_drop(Index &left, Index::iterator it, bool only_item, const char *reason,
                      PendingGaps *gaps, std::vector<uint64_t> *doomed, uint64_t *bytes) const {
    const ItemInfo victim = it->second;
    std::vector<uint64_t> seqs;
    if (only_item || !in_recording(victim)) {
        seqs.push_back(victim.seq);
    } else {
        for (const auto &[seq, info] : left) {
            if (seq != held_ && in_recording(info) && info.recording == victim.recording) {
                seqs.push_back(seq);
            }
        }
    }
    uint64_t media_bytes = 0;
    for (const uint64_t seq : seqs) {
        const auto item = left.find(seq);
        const ItemInfo &info = item->second;
        if (in_recording(info)) {
            PendingGap &pending = (*gaps)[{info.recording, reason}];
            Gap &gap = pending.gap;
            const uint32_t queued_s = static_cast<uint32_t>(info.queued_ms / 1000);
            const uint32_t begin = info.span_begin != 0 ? info.span_begin : queued_s;
            const uint32_t end = info.span_end != 0 ? info.span_end : queued_s;
            gap.recording = info.recording;
            gap.reason = reason;
            gap.from = gap.from == 0 ? begin : std::min(gap.from, begin);
            // The stop's end time is the recording's end; without it, the last file's end.
            if (info.kind == Kind::kStop) {
                gap.to = end;
                pending.stopped = true;
            } else if (!pending.stopped) {
                gap.to = std::max(gap.to, end);
            }
            if (info.kind == Kind::kMedia) {
                gap.bytes += info.body_bytes;
                media_bytes += info.body_bytes;
            }
            pending.seqs.push_back(seq);
        }
        *bytes -= std::min(*bytes, info.file_bytes);
        doomed->push_back(seq);
        left.erase(item);
    }
    if (in_recording(victim) && !only_item) {
        internal::log_error("spool: %s: dropping recording %u (%zu items, %llu media bytes)",
                            reason, victim.recording, seqs.size(),
                            static_cast<unsigned long long>(media_bytes));
    } else {
        internal::log_error("spool: %s: dropping %s (%llu bytes)", reason, describe(victim).c_str(),
                            static_cast<unsigned long long>(victim.body_bytes));
    }
}

void Spool::enforce_bounds(uint64_t now_ms) {
    std::lock_guard<std::mutex> lock(mu_);
    enforce_locked(now_ms);
}

bool Spool::report_gap(const PendingGap &pending, uint64_t now_ms) {
    ItemInfo info;
    info.kind = Kind::kGap;
    info.drops = pending.seqs;
    return append_locked(std::move(info), config_.gap_request(pending.gap), now_ms);
}

void Spool::enforce_locked(uint64_t now_ms) {
    const auto too_old = [&](Index::iterator it, const Index &items) {
        return it != items.end() && it->second.queued_ms <= now_ms &&
               now_ms - it->second.queued_ms >= config_.max_age_ms;
    };
    if (bytes_ <= config_.max_bytes && !too_old(oldest_droppable(index_), index_)) {
        return;
    }
    // What goes is chosen on a copy first, so that each gap report, naming its items, is on
    // disk before any of them is removed: a power cut in between leaves the report, and the
    // next open finishes the drop, rather than footage gone without a word.
    Index left = index_;
    uint64_t bytes = bytes_;
    PendingGaps gaps;
    std::vector<uint64_t> doomed;
    for (auto it = oldest_droppable(left); too_old(it, left); it = oldest_droppable(left)) {
        plan_drop(left, it, false, kTooOld, &gaps, &doomed, &bytes);
    }
    while (bytes > config_.max_bytes) {
        auto it = oldest_droppable(left);
        if (it == left.end()) {
            break;
        }
        bool only_item = false;
        const uint32_t open = open_recording(left);
        if (open != 0 && in_recording(it->second) && it->second.recording == open) {
            // The recording still being written keeps its start: its oldest file goes.
            for (auto m = left.begin(); m != left.end(); ++m) {
                if (m->first != held_ && m->second.recording == open &&
                    m->second.kind == Kind::kMedia) {
                    it = m;
                    only_item = true;
                    break;
                }
            }
        }
        plan_drop(left, it, only_item, kFull, &gaps, &doomed, &bytes);
    }
    std::vector<const PendingGap *> unreported;
    for (const auto &entry : gaps) {
        const Gap &gap = entry.second.gap;
        internal::log_error("spool: gap in recording %u from %u to %u (%s, %llu bytes)",
                            gap.recording, gap.from, gap.to, gap.reason,
                            static_cast<unsigned long long>(gap.bytes));
        if (config_.gap_request && !report_gap(entry.second, now_ms)) {
            unreported.push_back(&entry.second);
        }
    }
    for (const uint64_t seq : doomed) {
        erase_locked(seq);
        ++dropped_;
    }
    // A report the device had no room for gets the room just freed.
    for (const PendingGap *pending : unreported) {
        if (!report_gap(*pending, now_ms)) {
            internal::log_error("spool: the gap in recording %u could not be queued",
                                pending->gap.recording);
        }
    }
}

bool Spool::empty() const {
    std::lock_guard<std::mutex> lock(mu_);
    return index_.empty();
}

Stats Spool::stats() const {
    std::lock_guard<std::mutex> lock(mu_);
    Stats s;
    s.items = index_.size();
    s.bytes = bytes_;
    s.oldest_ms = index_.empty() ? 0 : index_.begin()->second.queued_ms;
    s.sent = sent_;
    s.dropped = dropped_;
    return s;
}

} // namespace hostkit::spool
