/* A firmware's use of the cloud-recording module, reduced to its life cycle: start it with
 * the main stream's parameters, wait until it has the cloud's configuration, read its state,
 * and shut it down. Prints each step; exits 0 only when every answer is the expected one. */
#include <stdio.h>
#include <string.h>

#include "vexo_ipc_cloud_storage.h"
#include "vexo_thread.h"

enum { CONFIG_WAIT_STEP_MS = 50, CONFIG_WAIT_STEPS = 200 }; /* at most 10 s */
enum { STORE_MODE_EVENT = 1 };
enum { AUDIO_CHANNEL = 9 };

static int expect(const char *what, int32_t got, int32_t want) {
    printf("%-28s %d\n", what, (int)got);
    if (got != want) {
        fprintf(stderr, "consumer: %s is %d, expected %d\n", what, (int)got, (int)want);
        return 0;
    }
    return 1;
}

static void describe_stream(vexo_ipc_media_info_t *media) {
    memset(media, 0, sizeof *media);
    media->channel_enable[0] = 1;
    media->video_fps[0] = 25;
    media->video_gop[0] = 50;
    media->video_bitrate[0] = 1024; /* kbit/s */
    media->video_width[0] = 1920;
    media->video_height[0] = 1080;
    media->video_freq[0] = 90000;
    media->video_codec[0] = VEXO_CODEC_H264;
    media->channel_enable[AUDIO_CHANNEL] = 1;
    media->audio_codec[AUDIO_CHANNEL] = VEXO_CODEC_G711U;
    media->audio_fps[AUDIO_CHANNEL] = 25;
    media->audio_sample[AUDIO_CHANNEL] = 8000;
    media->audio_databits[AUDIO_CHANNEL] = 16;
    media->audio_channel[AUDIO_CHANNEL] = 1;
}

/* The module fetches the configuration on its own thread right after init. */
static int32_t wait_for_config(void) {
    for (int step = 0; step < CONFIG_WAIT_STEPS; ++step) {
        if (vexo_ipc_cloud_storage_get_if_have_config() == 1) {
            return 1;
        }
        vexo_hal_system_sleep(CONFIG_WAIT_STEP_MS);
    }
    return vexo_ipc_cloud_storage_get_if_have_config();
}

int main(void) {
    vexo_ipc_media_info_t media;
    vexo_ipc_cloud_storage_hooks_t hooks;
    describe_stream(&media);
    memset(&hooks, 0, sizeof hooks);

    int ok = expect("inited before init", vexo_ipc_cloud_storage_get_if_inited(), 0);
    ok = ok && expect("init", vexo_ipc_cloud_storage_init(&media, &hooks), 0);
    ok = ok && expect("inited", vexo_ipc_cloud_storage_get_if_inited(), 1);
    ok = ok && expect("have config", wait_for_config(), 1);
    ok = ok &&
         expect("store mode (1: event)", vexo_ipc_cloud_storage_get_store_mode(), STORE_MODE_EVENT);
    ok = ok && expect("recording", vexo_ipc_cloud_storage_get_status(), 0);
    vexo_ipc_cloud_storage_uninit();
    ok = ok && expect("inited after uninit", vexo_ipc_cloud_storage_get_if_inited(), 0);

    puts(ok ? "consumer: ok" : "consumer: FAILED");
    return ok ? 0 : 1;
}
