// The export loop shared by the media tool's files and the service's segments.
#include "export_writer.h"

#include <memory>
#include <optional>
#include <string>

#include "aac_transcoder.h"
#include "bitstream.h"

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

    void add_file(const MediaFiles &files, size_t index) {
        ++summary_->files;
        const std::string &path = files.names.at(index);
        current_file_ = path;
        std::vector<vexo_media::Entry> entries;
        vexo_media::Fault fault;
        const bool whole = read_entries(files, index, &entries, &fault);
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

} // namespace

ExportSummary write_export(const ExportPlan &plan, const MediaFiles &files,
                           const vexo_media::Key &key, MuxOutput *out, size_t first, size_t end,
                           const std::function<void(size_t done)> &progress) {
    ExportSummary summary;
    Job job(plan, key, out, &summary);
    out->open();
    for (size_t i = first; i < end && i < files.names.size(); ++i) {
        job.add_file(files, i);
        if (progress) {
            progress(i + 1 - first);
        }
    }
    job.finish();
    out->finish();
    return summary;
}

} // namespace vexo_tool
