// Checking a recording's files against the format: structure, cipher lengths, the first entry
// of each file, time stamp order per stream and, with a key, decryption.
#include "media_format.h"

namespace vexo_media {
namespace {

/// What carries over from one file to the next while a recording is checked.
struct Progress {
    bool have_video = false;
    bool have_audio = false;
    uint64_t last_video = 0;
    uint64_t last_audio = 0;
    bool have_any = false;
};

void add_fault(VerifyReport *report, const std::string &file, uint64_t offset,
               std::string message) {
    report->faults.push_back(Fault{file, offset, std::move(message)});
}

void count(VerifyReport *report, const Entry &entry, Progress *progress) {
    ++report->entries;
    if (entry.type == kTypeAudio) {
        ++report->audio_frames;
    } else {
        ++report->video_frames;
        if (entry.type == kTypeKey) {
            ++report->key_frames;
        }
    }
    if (!progress->have_any || entry.timestamp < report->first_timestamp) {
        report->first_timestamp = entry.timestamp;
    }
    if (!progress->have_any || entry.timestamp > report->last_timestamp) {
        report->last_timestamp = entry.timestamp;
    }
    progress->have_any = true;
}

void check_order(VerifyReport *report, const std::string &file, const Entry &entry,
                 Progress *progress) {
    const bool audio = entry.type == kTypeAudio;
    bool &have = audio ? progress->have_audio : progress->have_video;
    uint64_t &last = audio ? progress->last_audio : progress->last_video;
    if (have && entry.timestamp < last) {
        add_fault(report, file, entry.offset,
                  std::string(audio ? "audio" : "video") + " time stamp " +
                      std::to_string(entry.timestamp) + " ms goes back from " +
                      std::to_string(last) + " ms");
    }
    have = true;
    last = entry.timestamp;
}

void check_cipher(VerifyReport *report, const std::string &file, const Entry &entry,
                  const Key *key) {
    if (!is_encrypted(entry.type)) {
        return;
    }
    if (entry.length == 0 || entry.length % 16 != 0) {
        add_fault(report, file, entry.offset,
                  "cipher length " + std::to_string(entry.length) +
                      " is not a non-zero multiple of 16");
        return;
    }
    std::vector<uint8_t> plain;
    if (key != nullptr && !decrypt(*key, entry.payload, &plain)) {
        add_fault(report, file, entry.offset,
                  std::string(entry.type == kTypeKey ? "key frame" : "audio frame") +
                      " does not decrypt with the key (bad padding)");
    }
}

void check_file(const std::string &path, const Key *key, VerifyReport *report, Progress *progress) {
    ++report->files;
    std::vector<uint8_t> bytes;
    Fault fault;
    if (!read_bytes(path, &bytes, &fault)) {
        report->bytes += bytes.size();
        report->faults.push_back(fault);
        return;
    }
    report->bytes += bytes.size();
    std::vector<Entry> entries;
    const bool whole = parse(path, bytes, &entries, &fault);
    if (whole && entries.empty()) {
        add_fault(report, path, 0, "empty file");
    }
    bool key_seen = false;
    bool early_p_reported = false;
    for (const Entry &entry : entries) {
        count(report, entry, progress);
        if (entry.type == kTypeKey) {
            key_seen = true;
        } else if (entry.type == kTypeP && !key_seen && !early_p_reported) {
            add_fault(report, path, entry.offset,
                      entry.offset == 0 ? "file begins with a P frame"
                                        : "P frame before the first key frame of the file");
            early_p_reported = true;
        }
        check_order(report, path, entry, progress);
        check_cipher(report, path, entry, key);
    }
    if (!whole) {
        report->faults.push_back(fault);
    }
}

} // namespace

VerifyReport verify_files(const std::vector<std::string> &paths, const Key *key) {
    VerifyReport report;
    Progress progress;
    for (const std::string &path : paths) {
        check_file(path, key, &report, &progress);
    }
    return report;
}

} // namespace vexo_media
