/// Records of the module's own interface: the stream parameters and the start hook given to
/// init. Index 0 of every video array is the main stream; index 9 of every 16-entry array is
/// the audio channel.
#ifndef VEXO_MEDIA_INFO_H
#define VEXO_MEDIA_INFO_H

#include "vexo_platform_common.h"

VEXO_EXTERN_C_BEGIN

/// Codec codes carried in video_codec / audio_codec.
enum {
    VEXO_CODEC_H264 = 2,
    VEXO_CODEC_H265 = 4,
    VEXO_CODEC_PCM = 101,
    VEXO_CODEC_G711U = 102,
    VEXO_CODEC_G711A = 103,
    VEXO_CODEC_AAC = 104
};

typedef struct {
    uint32_t channel_enable[16];
    uint32_t video_fps[8];
    uint32_t video_gop[8];
    uint32_t video_bitrate[8];
    uint32_t video_width[8];
    uint32_t video_height[8];
    uint32_t video_freq[8];
    uint32_t video_codec[8];
    uint32_t audio_codec[16];
    uint32_t audio_fps[16];
    uint32_t audio_sample[16];
    uint32_t audio_databits[16];
    uint32_t audio_channel[16];
} vexo_ipc_media_info_t;

VEXO_STATIC_ASSERT(offsetof(vexo_ipc_media_info_t, video_fps) == 64, "video_fps");
VEXO_STATIC_ASSERT(offsetof(vexo_ipc_media_info_t, video_gop) == 96, "video_gop");
VEXO_STATIC_ASSERT(offsetof(vexo_ipc_media_info_t, video_bitrate) == 128, "video_bitrate");
VEXO_STATIC_ASSERT(offsetof(vexo_ipc_media_info_t, video_width) == 160, "video_width");
VEXO_STATIC_ASSERT(offsetof(vexo_ipc_media_info_t, video_height) == 192, "video_height");
VEXO_STATIC_ASSERT(offsetof(vexo_ipc_media_info_t, video_freq) == 224, "video_freq");
VEXO_STATIC_ASSERT(offsetof(vexo_ipc_media_info_t, video_codec) == 256, "video_codec");
VEXO_STATIC_ASSERT(offsetof(vexo_ipc_media_info_t, audio_codec) == 288, "audio_codec");
VEXO_STATIC_ASSERT(offsetof(vexo_ipc_media_info_t, audio_fps) == 352, "audio_fps");
VEXO_STATIC_ASSERT(offsetof(vexo_ipc_media_info_t, audio_sample) == 416, "audio_sample");
VEXO_STATIC_ASSERT(offsetof(vexo_ipc_media_info_t, audio_databits) == 480, "audio_databits");
VEXO_STATIC_ASSERT(offsetof(vexo_ipc_media_info_t, audio_channel) == 544, "audio_channel");
VEXO_STATIC_ASSERT(sizeof(vexo_ipc_media_info_t) == 608, "vexo_ipc_media_info_t size");

typedef struct {
    void (*start_hook)(void);
    uint32_t user_word_1;
    uint32_t reserved;
    uint32_t user_word_2;
} vexo_ipc_cloud_storage_hooks_t;

#if VEXO_PTR32
VEXO_STATIC_ASSERT(sizeof(vexo_ipc_cloud_storage_hooks_t) == 16, "hooks record size");
VEXO_STATIC_ASSERT(offsetof(vexo_ipc_cloud_storage_hooks_t, user_word_2) == 12, "user_word_2");
#endif

VEXO_EXTERN_C_END

#endif
