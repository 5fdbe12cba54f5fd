/// The kit's media ring buffer: one per stream, any number of readers with own cursors.
///
/// Frames carry what a camera's encoder delivers: H.264/H.265 Annex-B access units (key frames
/// with their parameter sets in front), AAC as one ADTS frame per frame, G.711 and PCM raw.
/// A returned frame stays valid until the same user's next get call or close. A new reader
/// starts at the live end. None of these calls blocks.
#ifndef VEXO_RING_BUFFER_H
#define VEXO_RING_BUFFER_H

#include "vexo_platform_common.h"

VEXO_EXTERN_C_BEGIN

enum { VEXO_FRAME_P = 0, VEXO_FRAME_I = 1, VEXO_FRAME_AUDIO = 3 };
enum { VEXO_STREAM_MAIN = 0, VEXO_STREAM_SUB = 1, VEXO_STREAM_AUDIO = 9 };
typedef struct {
    uint32_t type;
    uint8_t *data;
    uint32_t size;
    uint32_t seq; /* the kit's counter */
    uint64_t pts;
    uint64_t timestamp; /* ms */
} vexo_ring_buffer_frame_t;
typedef void *vexo_ring_buffer_user_t;

/// Opens a reader at the live end of a stream; null on failure.
vexo_ring_buffer_user_t vexo_ipc_ring_buffer_open(int32_t device, int32_t channel, int32_t stream,
                                                  int32_t user_kind);
/// Next frame for this reader, or null when it is caught up. retry = 1 hands out again the
/// frame this reader got last.
vexo_ring_buffer_frame_t *vexo_ipc_ring_buffer_get_frame(vexo_ring_buffer_user_t user,
                                                         int32_t retry);
/// Whichever stream's next frame is older (video first on equal time stamps).
vexo_ring_buffer_frame_t *vexo_ipc_ring_buffer_get_av_frame(vexo_ring_buffer_user_t video,
                                                            vexo_ring_buffer_user_t audio,
                                                            int32_t retry);
/// Steps the reader back frames_back frames, then (to_key_frame) to the key frame at or before
/// it. Non-zero while the stream holds no frame to anchor on.
int32_t vexo_ipc_ring_buffer_anchor_user(vexo_ring_buffer_user_t user, uint32_t frames_back,
                                         int32_t to_key_frame);
/// Moves the audio reader to the first audio frame not older than the video reader's next.
int32_t vexo_ipc_ring_buffer_sync_stream(vexo_ring_buffer_user_t video,
                                         vexo_ring_buffer_user_t audio);
/// Non-zero when the reader's next frame lags the newest by more than the kit's lag limit
/// (which exceeds the longest pre-record) or was overwritten. The kit then catches the reader
/// up itself: its next get call, retry or not, starts at the newest key frame (the audio
/// reader read beside it at the first audio frame not older), unless anchor_user comes first.
int32_t vexo_ipc_ring_buffer_if_delay(vexo_ring_buffer_user_t user);
int32_t vexo_ipc_ring_buffer_close(vexo_ring_buffer_user_t user);
/// Time stamp (ms) of the newest frame of the stream; 0 when it holds none.
uint64_t vexo_ipc_ring_buffer_get_lastest_timestamp(int32_t device, int32_t channel,
                                                    int32_t stream);
/// Largest frame the stream can deliver; -1 when unknown.
int32_t vexo_ipc_ring_buffer_get_max_frame_size(int32_t device, int32_t channel, int32_t stream);
/// Seconds the stream holds; negative while the ring buffer is not ready.
int32_t vexo_ipc_ring_buffer_get_max_buf_secs(int32_t device, int32_t channel, int32_t stream);

VEXO_EXTERN_C_END

#endif
