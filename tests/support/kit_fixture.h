/// GoogleTest fixture for module tests: resets the kit and every static of the module before
/// each case, and after it checks that the module stopped its threads and left nothing behind
/// (allocations, held mutexes, open ring-buffer readers, unreleased store reads, misuse).
#ifndef VEXO_KIT_FIXTURE_H
#define VEXO_KIT_FIXTURE_H

#include <cstdint>
#include <functional>
#include <gtest/gtest.h>

#include "cloud_storage_internal.h"
#include "test_kit.h"

class KitTest : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

    /// Main stream 25 fps, GOP 50, 1024 kbit/s, 1920x1080, H.264; audio channel 9 enabled,
    /// G.711 A-law, 8000 Hz, 16 bits, 1 channel.
    static vexo_ipc_media_info_t default_media_info();
    /// A start-hook record with no hook and zero words.
    static vexo_ipc_cloud_storage_hooks_t default_hooks();
    /// vexo_ipc_cloud_storage_init with the records above.
    static int32_t init_default();
    /// Polls pred until it holds or real_ms of real time have passed; true when it held.
    static bool wait_until(const std::function<bool()> &pred, uint32_t real_ms = 10000);

    /// Blocks the test leaves allocated on purpose, per pool; TearDown releases them.
    void expect_leaked(tk::Pool pool, uint64_t blocks);

  private:
    uint64_t leaked_malloc_ = 0;
    uint64_t leaked_system_ = 0;
};

#endif
