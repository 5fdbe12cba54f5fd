// The stream description a camera sends with each recording ("payloadInfo"): codec codes,
// frame rate, picture size and the audio parameters.
#ifndef VEXO_MEDIA_PAYLOAD_INFO_H
#define VEXO_MEDIA_PAYLOAD_INFO_H

#include <cstdint>
#include <string>

namespace vexo_tool {

// Codec codes of the camera protocol.
constexpr int kVideoH264 = 2;
constexpr int kVideoH265 = 4;
constexpr int kAudioPcm = 101;   // PCM s16le
constexpr int kAudioMulaw = 102; // G.711 mu-law
constexpr int kAudioAlaw = 103;  // G.711 A-law
constexpr int kAudioAac = 104;   // AAC, one ADTS frame per entry

struct PayloadInfo {
    int video_codec = 0;
    int fps = 0;
    int width = 0;
    int height = 0;
    bool has_audio = false; // the recording announced an audio channel
    int audio_codec = 0;
    int sample_rate = 0;
    int bits = 0;
    int channels = 0;
};

/// Parses the payloadInfo JSON text. Codes may be numbers or numbers in quotes. False with
/// *error on malformed JSON, a missing video codec or a value out of range; an unknown codec
/// code is accepted here and refused by whoever needs it.
bool parse_payload_info(const std::string &text, PayloadInfo *info, std::string *error);

} // namespace vexo_tool

#endif
