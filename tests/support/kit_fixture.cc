// The module-test fixture: reset before, leak and misuse checks after.
#include "kit_fixture.h"

#include <chrono>
#include <cstring>
#include <thread>

namespace {

constexpr uint32_t kThreadExitMs = 10000;

std::string misuse_text() {
    std::string text;
    for (const tk::Misuse &m : tk::misuses()) {
        text += "  [" + m.category + "] " + m.message + "\n";
    }
    return text;
}

std::string blocks_text(tk::Pool pool) {
    std::string text;
    for (size_t size : tk::outstanding_blocks(pool)) {
        text += " " + std::to_string(size);
    }
    return text;
}

} // namespace

void KitTest::SetUp() {
    tk::reset();
    cloud_storage_reset_statics();
    leaked_malloc_ = 0;
    leaked_system_ = 0;
}

void KitTest::TearDown() {
    if (vexo_ipc_cloud_storage_get_if_inited() != 0) {
        vexo_ipc_cloud_storage_uninit();
    }
    EXPECT_TRUE(tk::wait_threads_exited(kThreadExitMs))
        << tk::running_thread_count() << " kit thread(s) still running";
    EXPECT_EQ(tk::alloc_stats(tk::Pool::malloc).outstanding, leaked_malloc_)
        << "Malloc blocks outstanding, sizes:" << blocks_text(tk::Pool::malloc);
    EXPECT_EQ(tk::alloc_stats(tk::Pool::system).outstanding, leaked_system_)
        << "system blocks outstanding, sizes:" << blocks_text(tk::Pool::system);
    EXPECT_EQ(tk::locked_mutex_count(), 0u);
    EXPECT_EQ(tk::open_reader_count(), 0u);
    EXPECT_EQ(tk::kv_outstanding_reads(), 0u);
    EXPECT_EQ(tk::misuse_count(), 0u) << misuse_text();
    // Releases what the test left on purpose, so the leak checker at exit sees none of it.
    if (tk::running_thread_count() == 0) {
        tk::reset();
    }
}

vexo_ipc_media_info_t KitTest::default_media_info() {
    return tk::sample_media_info();
}

vexo_ipc_cloud_storage_hooks_t KitTest::default_hooks() {
    vexo_ipc_cloud_storage_hooks_t hooks;
    std::memset(&hooks, 0, sizeof(hooks));
    return hooks;
}

int32_t KitTest::init_default() {
    vexo_ipc_media_info_t media = default_media_info();
    vexo_ipc_cloud_storage_hooks_t hooks = default_hooks();
    return vexo_ipc_cloud_storage_init(&media, &hooks);
}

bool KitTest::wait_until(const std::function<bool()> &pred, uint32_t real_ms) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(real_ms);
    while (!pred()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return pred();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

void KitTest::expect_leaked(tk::Pool pool, uint64_t blocks) {
    (pool == tk::Pool::malloc ? leaked_malloc_ : leaked_system_) = blocks;
}
