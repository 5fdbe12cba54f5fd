/// AAC as a camera's encoder delivers it: one ADTS frame per frame. Frames that already have
/// an ADTS header (MPEG-TS, raw .aac) pass through; bare frames (MP4, MKV) get a header built
/// from the stream's AudioSpecificConfig.
#ifndef VEXO_CAMSIM_ADTS_H
#define VEXO_CAMSIM_ADTS_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace camsim {

/// The fields of an ADTS header that come from the stream's configuration.
struct AdtsConfig {
    uint32_t profile = 0;    // audio object type - 1
    uint32_t rate_index = 0; // into the ADTS sample rate table
    uint32_t channel_config = 0;
};

/// Reads an AudioSpecificConfig (MP4/MKV codec configuration) into *config. HE-AAC gives its
/// core (AAC-LC) object type, as ADTS streams do. False with *error set for a configuration
/// cut short or one ADTS cannot carry.
bool parse_audio_config(const uint8_t *data, size_t size, AdtsConfig *config, std::string *error);

/// One AAC frame as an ADTS frame in *out: as it is when it already is one, else behind a
/// header made from *config (null: the stream has no configuration). False with *why set
/// (a phrase following "AAC frame at byte N") when neither works.
bool to_adts_frame(const uint8_t *data, size_t size, const AdtsConfig *config,
                   std::vector<uint8_t> *out, std::string *why);

} // namespace camsim

#endif
