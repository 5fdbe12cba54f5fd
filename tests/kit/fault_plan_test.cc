// The test kit's fault plan: every fallible call is counted in one sequence, and each kind fails
// the way its contract says when the plan picks it, while the other kinds work on.
#include <gtest/gtest.h>
#include <vector>

#include "test_kit.h"

namespace {

using F = tk::Fallible;

void noop_thread(void *) {}
void noop_handler(cJSON *) {}

// Scratch the calls below write into; tk::reset releases whatever they allocate.
uint8_t g_buf[32];
uint32_t g_len;
uint8_t *g_out;
int32_t g_int;
vexo_storage_config_t g_cfg;
vexo_kv_entry_t g_entry = {"k", VEXO_KV_INT, &g_int, 4};
vexo_hw_aes_t g_aes;
vexo_alarm_event_t g_alarm;
vexo_thread_t g_thread;
vexo_mutex_t g_mutex;
cJSON *g_json;

int32_t post() {
    tk::queue_post_answer("api", 0, "{}");
    char body[] = "{}";
    g_json = nullptr;
    const int32_t rc =
        iot_httpc_common_post_no_remalloc("api", "1", nullptr, "d", body, 2, nullptr, &g_json);
    cJSON_Delete(g_json);
    return rc;
}
void *frame() {
    void *r = vexo_ipc_ring_buffer_open(0, 0, VEXO_STREAM_MAIN, 0);
    tk::push_frame(VEXO_STREAM_MAIN, VEXO_FRAME_I, {1, 2}, tk::now_ms(), 0);
    return vexo_ipc_ring_buffer_get_frame(r, 0);
}
int32_t encrypt() {
    g_len = 16;
    return OpensslAES_CBC128_encrypt(g_buf, 4, g_buf + 16, &g_len, g_buf, g_buf);
}
int32_t config(bool restriction) { // a failed one leaves the record as it was
    g_cfg = {};
    return restriction ? cloud_get_storage_restriction_config(&g_cfg)
                       : cloud_get_storage_config(&g_cfg, 0);
}
int32_t snapshot() {
    int32_t room = sizeof g_buf; // the call sets it to the picture's size
    return vexo_ipc_get_snapshot_cb(g_buf, &room);
}
int32_t thread() {
    const int32_t rc = CreateAndStart(&g_thread, nullptr, nullptr, noop_thread, nullptr, nullptr);
    tk::wait_threads_exited(5000);
    return rc;
}
const std::vector<uint8_t> kRecord = tk::encode_record({{"k", VEXO_KV_INT, {7, 0, 0, 0}}});

/// One call of each kind; true when it reported the kind's failure. A failed call otherwise
/// does what the same result queued with queue_result does; the configuration calls and the
/// post, which had no such result before the plan, are checked for what they hand back.
struct Case {
    F kind;
    bool (*failed)();
};

const Case kCases[] = {
    {F::malloc, [] { return Malloc(8) == nullptr; }},
    {F::system_malloc, [] { return vexo_hal_system_malloc(8) == nullptr; }},
    {F::kv_read, [] { return iot_wd_common_read("none", &g_out, &g_len) == -1; }},
    {F::kv_write, [] { return iot_wd_common_write("w", g_buf, 2) == -1; }},
    {F::serialize, [] { return iot_wd_utils_serialize(&g_entry, 1, &g_out, &g_len) == -1; }},
    {F::deserialize, [] { return iot_wd_utils_deserialize(kRecord.data(), &g_entry, 1) == -1; }},
    {F::aes_init, [] { return vexo_hw_aes_crypt_init(&g_aes, g_buf) == -1; }},
    {F::aes_update_key, [] { return vexo_hw_aes_update_key(&g_aes, g_buf) == -1; }},
    {F::aes_encrypt, [] { return encrypt() == -1; }},
    {F::ring_open, [] { return vexo_ipc_ring_buffer_open(0, 0, VEXO_STREAM_MAIN, 0) == nullptr; }},
    {F::ring_get, [] { return frame() == nullptr; }},
    {F::storage_config, [] { return config(false) == -1 && g_cfg.slice_duration == 0; }},
    {F::restriction, [] { return config(true) == -1 && g_cfg.slice_duration == 0; }},
    {F::api_post, [] { return post() == -1 && g_json == nullptr; }},
    {F::upload, [] { return cloud_put_data_to_file(&g_cfg, "", 0, "f", "", g_buf, 1) == -1; }},
    {F::alarm, [] { return vexo_ipc_alarm_event(&g_alarm) == -1; }},
    {F::snapshot, [] { return snapshot() == -1; }},
    {F::mqtt_attach, [] { return mqtt_attach(5, noop_handler) == -1; }},
    {F::thread_create, [] { return thread() == -1; }},
    {F::mutex_create, [] { return vexo_hal_mutex_create_init(&g_mutex) == -1; }},
};

TEST(FaultPlan, EachKindFailsAsItsContractSaysOnlyWhilePlannedAndIsCounted) {
    for (const Case &c : kCases) {
        SCOPED_TRACE(tk::fallible_name(c.kind));
        tk::reset();
        tk::set_default_restriction(0, 30, 10);
        EXPECT_FALSE(c.failed()) << "fails with no fault planned";
        tk::fail_every(c.kind, true);
        EXPECT_TRUE(c.failed());
        tk::faults_off();
        EXPECT_FALSE(c.failed());
        EXPECT_GE(tk::fallible_calls(c.kind), 3u);
        ASSERT_EQ(tk::injected_faults().size(), 1u);
        EXPECT_EQ(tk::injected_faults()[0].kind, c.kind);
    }
    tk::reset();
}

TEST(FaultPlan, NthFallibleCallCountsAcrossKindsAndFailsOnlyThatOne) {
    tk::reset();
    tk::fail_nth_fallible(3);
    void *a = Malloc(4);                                // 1
    EXPECT_EQ(vexo_hal_mutex_create_init(&g_mutex), 0); // 2
    EXPECT_EQ(vexo_hal_system_malloc(4), nullptr);      // 3: fails
    void *c = vexo_hal_system_malloc(4);                // 4
    EXPECT_NE(c, nullptr);
    EXPECT_EQ(tk::fallible_calls(), 4u);
    EXPECT_EQ(tk::fallible_calls(F::system_malloc), 2u);
    ASSERT_EQ(tk::injected_faults().size(), 1u);
    EXPECT_EQ(tk::injected_faults()[0].index, 3u);
    // A failure queued the older way is still honoured, and the call still counted.
    tk::queue_result("mqtt_attach", -7);
    EXPECT_EQ(mqtt_attach(1, noop_handler), -7);
    EXPECT_EQ(tk::fallible_calls(F::mqtt_attach), 1u);
    Free(a);
    vexo_hal_system_free(c);
    tk::reset();
}

} // namespace
