// The export loop: entries are read file by file, decrypted, and handed to the muxer (video
// and copied audio) or to the AAC encoder (G.711/PCM audio into MP4).
#include "export_job.h"

#include <cstdio>
#include <memory>
#include <optional>

#include "aac_transcoder.h"
#include "bitstream.h"
#include "export_plan.h"
#include "progress_bar.h"
#include "tool_error.h"

namespace vexo_tool {
namespace {

/// Entries later than this after the recording's first entry are taken as damaged (a
/// recording lasts at most half an hour).
constexpr int64_t kMaxOffsetMs = 6 * 3600 * 1000;

/// Holds back one packet of a copied stream until the next shows its duration, and keeps the
/// stream's time stamps strictly increasing (MP4 refuses equal ones).
class DelayedStream {
  public:
    DelayedStream(MuxOutput *out, int index, int64_t last_duration, ExportSummary *summary)
        : out_(out), index_(index), last_duration_(last_duration), summary_(summary) {}

    void push(std::vector<uint8_t> data, int64_t pts, bool key, const std::string &file,
              uint64_t offset) {
        if (pending_ && pts <= pending_->pts) {
            pts = pending_->pts + 1;
            ++summary_->adjusted;
        }
        if (pending_) {
            write(pts - pending_->pts);
        }
        pending_ = Pending{std::move(data), pts, key, file, offset};
    }

    void flush() {
        if (pending_) {
            write(last_duration_);
        }
    }

  private:
    struct Pending {
        std::vector<uint8_t> data;
        int64_t pts = 0;
        bool key = false;
        std::string file;
        uint64_t offset = 0;
    };

    void write(int64_t duration) {
        if (!out_->write_ms(index_, pending_->data.data(), pending_->data.size(), pending_->pts,
                            duration, pending_->key)) {
            summary_->faults.push_back(
                {pending_->file, pending_->offset, "the muxer refused this frame's content"});
        }
        last_duration_ = duration;
        pending_.reset();
    }

    MuxOutput *out_;
    int index_;
    int64_t last_duration_;
    ExportSummary *summary_;
    std::optional<Pending> pending_;
};

/// One export in progress.
class Job {
  public:
    Job(const ExportPlan &plan, const vexo_media::Key &key, MuxOutput *out, ExportSummary *summary)
        : plan_(plan), key_(key), out_(out), summary_(summary) {
        if (plan.video) {
            const int64_t frame_ms = plan.info.fps > 0 ? 1000 / plan.info.fps : 40;
            video_.emplace(out, out->add_copied(*plan.video), frame_ms, summary);
        }
        if (plan.audio == AudioMode::kCopy) {
            audio_.emplace(out, out->add_copied(plan.audio_track), 20, summary);
        } else if (plan.audio == AudioMode::kTranscode) {
            transcoder_ = std::make_unique<AacTranscoder>(
                plan.info.audio_codec, plan.audio_track.sample_rate, plan.audio_track.channels,
                out->wants_global_header());
            transcoded_index_ = out->add_encoded(transcoder_->encoder());
        }
    }

    void add_file(const std::string &path) {
        ++summary_->files;
        current_file_ = path;
        std::vector<uint8_t> bytes;
        std::vector<vexo_media::Entry> entries;
        vexo_media::Fault fault;
        const bool whole = vexo_media::read_bytes(path, &bytes, &fault) &&
                           vexo_media::parse(path, bytes, &entries, &fault);
        bytes.clear();
        for (const vexo_media::Entry &entry : entries) {
            add_entry(path, entry);
        }
        if (!whole) {
            summary_->faults.push_back(fault);
            waiting_for_key_ = true;
        }
    }

    void finish() {
        if (video_) {
            video_->flush();
        }
        if (audio_) {
            audio_->flush();
        }
        if (transcoder_) {
            transcoder_->finish([this](AVPacket *p) { write_transcoded(p); });
        }
    }

  private:
    /// Milliseconds after the recording's first entry (earlier entries count as 0); -1 when
    /// the time stamp is too far out to be true.
    int64_t relative(uint64_t timestamp) const {
        if (timestamp <= plan_.base_timestamp) {
            return 0;
        }
        const uint64_t offset = timestamp - plan_.base_timestamp;
        return offset > static_cast<uint64_t>(kMaxOffsetMs) ? -1 : static_cast<int64_t>(offset);
    }

    void note_time(int64_t ms) {
        if (summary_->first_ms < 0 || ms < summary_->first_ms) {
            summary_->first_ms = ms;
        }
        if (ms > summary_->last_ms) {
            summary_->last_ms = ms;
        }
    }

    void add_entry(const std::string &path, const vexo_media::Entry &entry) {
        current_offset_ = entry.offset;
        const bool audio = entry.type == vexo_media::kTypeAudio;
        std::vector<uint8_t> plain;
        if (!vexo_media::plain_payload(key_, entry, &plain)) {
            summary_->faults.push_back(
                {path, entry.offset,
                 std::string(audio ? "audio frame" : "key frame") + " does not decrypt"});
            if (!audio) {
                waiting_for_key_ = true;
            }
            return;
        }
        if ((audio && plan_.audio == AudioMode::kNone) || (!audio && !video_)) {
            ++summary_->skipped;
            return;
        }
        const int64_t ms = relative(entry.timestamp);
        if (ms < 0) {
            summary_->faults.push_back({path, entry.offset,
                                        "time stamp " + std::to_string(entry.timestamp) +
                                            " ms lies hours after the recording's start"});
            waiting_for_key_ = waiting_for_key_ || !audio;
            return;
        }
        if (audio) {
            add_audio(path, entry, std::move(plain), ms);
            return;
        }
        const bool key = entry.type == vexo_media::kTypeKey;
        if (key) {
            waiting_for_key_ = false;
        } else if (waiting_for_key_) {
            ++summary_->skipped;
            return;
        }
        video_->push(std::move(plain), ms, key, path, entry.offset);
        ++summary_->video_frames;
        note_time(ms);
    }

    void add_audio(const std::string &path, const vexo_media::Entry &entry,
                   std::vector<uint8_t> plain, int64_t ms) {
        if (transcoder_) {
            if (!transcoder_->push(plain, ms, [this](AVPacket *p) { write_transcoded(p); })) {
                summary_->faults.push_back({path, entry.offset, "audio frame does not decode"});
                return;
            }
        } else {
            if (plan_.audio_track.codec == AV_CODEC_ID_AAC && !read_adts(plain)) {
                summary_->faults.push_back(
                    {path, entry.offset, "audio frame does not begin with an ADTS header"});
                return;
            }
            audio_->push(std::move(plain), ms, true, path, entry.offset);
        }
        ++summary_->audio_frames;
        note_time(ms);
    }

    void write_transcoded(AVPacket *packet) {
        if (!out_->write_packet(transcoded_index_, packet, transcoder_->encoder()->time_base)) {
            summary_->faults.push_back(
                {current_file_, current_offset_, "the muxer refused the audio encoded up to here"});
        }
    }

    const ExportPlan &plan_;
    const vexo_media::Key &key_;
    MuxOutput *out_;
    ExportSummary *summary_;
    std::optional<DelayedStream> video_;
    std::optional<DelayedStream> audio_;
    std::unique_ptr<AacTranscoder> transcoder_;
    int transcoded_index_ = -1;
    bool waiting_for_key_ = true;
    std::string current_file_;
    uint64_t current_offset_ = 0;
};

/// Removes the partial output unless released.
class PartialFile {
  public:
    explicit PartialFile(std::string path) : path_(std::move(path)) {}
    ~PartialFile() {
        if (!path_.empty()) {
            std::remove(path_.c_str());
        }
    }
    PartialFile(const PartialFile &) = delete;
    PartialFile &operator=(const PartialFile &) = delete;
    void release() { path_.clear(); }

  private:
    std::string path_;
};

std::string nothing_to_export(const Recording &recording,
                              const std::vector<vexo_media::Fault> &faults) {
    std::string message = "recording " + recording.device + " " +
                          std::to_string(recording.start_time) +
                          " holds no key frame with parameter sets and no audio to export";
    for (const vexo_media::Fault &fault : faults) {
        message += "\n  " + base_name(fault.file) + ": offset " + std::to_string(fault.offset) +
                   ": " + fault.message;
    }
    return message;
}

} // namespace

ExportSummary export_recording(const Recording &recording, const vexo_media::Key &key,
                               const std::string &out_path, Container container,
                               const std::string &progress_label) {
    const std::vector<std::string> paths = media_paths(recording);
    const ExportPlan plan = plan_export(recording.payload_info, paths, key, container);
    if (!plan.video && plan.audio == AudioMode::kNone) {
        throw ToolError(nothing_to_export(recording, plan.faults), kExitFault);
    }
    const std::string part_path = out_path + ".part";
    ExportSummary summary;
    {
        PartialFile partial(part_path);
        MuxOutput out(part_path, container);
        Job job(plan, key, &out, &summary);
        out.open();
        ProgressBar progress(progress_label, paths.size());
        progress.update(0);
        for (size_t i = 0; i < paths.size(); ++i) {
            job.add_file(paths[i]);
            progress.update(i + 1);
        }
        job.finish();
        out.finish();
        progress.clear();
        if (std::rename(part_path.c_str(), out_path.c_str()) != 0) {
            throw ToolError("cannot rename " + part_path + " to " + out_path);
        }
        partial.release();
    }
    return summary;
}

} // namespace vexo_tool
