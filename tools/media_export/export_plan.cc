// Looking ahead into a recording before its export: codecs from payloadInfo, the first key
// frame's parameter sets, the first audio frame's ADTS header.
#include "export_plan.h"

#include "bitstream.h"
#include "tool_error.h"

namespace vexo_tool {
namespace {

/// First entries found while looking ahead.
struct FirstFrames {
    bool have_base = false;
    uint64_t base_timestamp = 0;
    std::vector<uint8_t> parameter_sets;
    bool audio_found = false;
    std::vector<uint8_t> first_audio;
    std::vector<vexo_media::Fault> faults;
};

FirstFrames look_ahead(const MediaFiles &files, const vexo_media::Key &key, bool hevc,
                       bool want_audio) {
    FirstFrames found;
    for (size_t i = 0; i < files.names.size(); ++i) {
        std::vector<vexo_media::Entry> entries;
        vexo_media::Fault fault;
        if (!read_entries(files, i, &entries, &fault)) {
            found.faults.push_back(fault);
        }
        for (const vexo_media::Entry &entry : entries) {
            if (!found.have_base) {
                found.have_base = true;
                found.base_timestamp = entry.timestamp;
            }
            std::vector<uint8_t> plain;
            if (entry.type == vexo_media::kTypeKey && found.parameter_sets.empty() &&
                vexo_media::plain_payload(key, entry, &plain)) {
                found.parameter_sets = parameter_sets(plain, hevc);
            } else if (entry.type == vexo_media::kTypeAudio && !found.audio_found &&
                       vexo_media::plain_payload(key, entry, &plain)) {
                found.audio_found = true;
                found.first_audio = std::move(plain);
            }
            if (!found.parameter_sets.empty() && (found.audio_found || !want_audio)) {
                return found;
            }
        }
    }
    return found;
}

CopiedTrack video_track(const PayloadInfo &info, std::vector<uint8_t> parameter_sets) {
    CopiedTrack track;
    track.type = AVMEDIA_TYPE_VIDEO;
    track.codec = info.video_codec == kVideoH265 ? AV_CODEC_ID_HEVC : AV_CODEC_ID_H264;
    track.width = info.width;
    track.height = info.height;
    track.fps = info.fps;
    track.extradata = std::move(parameter_sets);
    return track;
}

CopiedTrack audio_track(const PayloadInfo &info, const std::vector<uint8_t> &first_audio) {
    CopiedTrack track;
    track.type = AVMEDIA_TYPE_AUDIO;
    track.sample_rate = info.sample_rate;
    track.channels = info.channels > 0 ? info.channels : 1;
    switch (info.audio_codec) {
    case kAudioAac:
        track.codec = AV_CODEC_ID_AAC;
        if (const std::optional<AdtsHeader> adts = read_adts(first_audio)) {
            // The frames themselves are the better witness of rate and layout. The extradata
            // stays empty: both muxers insert aac_adtstoasc for ADTS packets, which strips the
            // headers and hands them the AudioSpecificConfig with the first packet (a config
            // given up front as well makes the Matroska muxer overwrite its header).
            track.sample_rate = adts->sample_rate;
            if (adts->channel_config > 0 && adts->channel_config < 7) {
                track.channels = adts->channel_config;
            } else if (adts->channel_config == 7) {
                track.channels = 8;
            }
        }
        break;
    case kAudioPcm:
        track.codec = AV_CODEC_ID_PCM_S16LE;
        track.bits_per_sample = 16;
        break;
    case kAudioMulaw:
        track.codec = AV_CODEC_ID_PCM_MULAW;
        track.bits_per_sample = 8;
        break;
    case kAudioAlaw:
        track.codec = AV_CODEC_ID_PCM_ALAW;
        track.bits_per_sample = 8;
        break;
    default:
        throw ToolError("payloadInfo names audio codec " + std::to_string(info.audio_codec) +
                            ", which the export does not know",
                        kExitFault);
    }
    if (track.sample_rate <= 0 || track.sample_rate > 384000) {
        throw ToolError("no usable audio sample rate in payloadInfo", kExitFault);
    }
    return track;
}

} // namespace

ExportPlan plan_export(const std::string &payload_info, const MediaFiles &files,
                       const vexo_media::Key &key, Container container) {
    ExportPlan plan;
    std::string error;
    if (payload_info.empty()) {
        throw ToolError("the recording has no payloadInfo (no recording.json)", kExitFault);
    }
    if (!parse_payload_info(payload_info, &plan.info, &error)) {
        throw ToolError(error, kExitFault);
    }
    if (plan.info.video_codec != kVideoH264 && plan.info.video_codec != kVideoH265) {
        throw ToolError("payloadInfo names video codec " + std::to_string(plan.info.video_codec) +
                            ", which the export does not know",
                        kExitFault);
    }
    if (plan.info.width <= 0 || plan.info.height <= 0) {
        throw ToolError("payloadInfo gives no picture size (vWide, vHigh)", kExitFault);
    }
    FirstFrames first =
        look_ahead(files, key, plan.info.video_codec == kVideoH265, plan.info.has_audio);
    plan.base_timestamp = first.base_timestamp;
    if (!first.parameter_sets.empty()) {
        plan.video = video_track(plan.info, std::move(first.parameter_sets));
    }
    if (plan.info.has_audio && first.audio_found) {
        plan.audio_track = audio_track(plan.info, first.first_audio);
        const bool pcm = plan.audio_track.codec != AV_CODEC_ID_AAC;
        // Matroska holds G.711 and PCM as they are; MP4 and MPEG-TS get them as AAC.
        plan.audio = pcm && container != Container::kMkv ? AudioMode::kTranscode : AudioMode::kCopy;
    }
    if (!plan.video && plan.audio == AudioMode::kNone) {
        plan.faults = std::move(first.faults);
    }
    return plan;
}

} // namespace vexo_tool
