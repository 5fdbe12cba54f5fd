// The test kit's fault plan: every fallible call is counted in one sequence, and each kind fails
// the way its contract says when the plan picks it, while the other kinds work on.
#include <cstring>
#include <functional>
#include <gtest/gtest.h>

#include "test_kit.h"

namespace {

using tk::Fallible;

class FaultPlan : public ::testing::Test {
  protected:
    void SetUp() override { tk::reset(); }
    void TearDown() override { tk::reset(); }
};

void noop_thread(void *) {}
void noop_handler(cJSON *) {}

/// Makes one call of the kind; true when it reported failure (and produced nothing).
struct Case {
    Fallible kind;
    std::function<bool()> call;
};

std::vector<Case> cases() {
    return {
        {Fallible::malloc,
         [] {
             void *p = Malloc(8);
             Free(p);
             return p == nullptr;
         }},
        {Fallible::system_malloc,
         [] {
             void *p = vexo_hal_system_malloc(8);
             vexo_hal_system_free(p);
             return p == nullptr;
         }},
        {Fallible::kv_read,
         [] {
             uint8_t *v = nullptr;
             uint32_t len = 0;
             const int32_t rc = iot_wd_common_read("rec", &v, &len);
             if (rc == 0) {
                 iot_wd_common_free_data(v);
             }
             return rc == -1 && v == nullptr;
         }},
        {Fallible::kv_write,
         [] {
             const uint8_t b[2] = {1, 2};
             tk::erase_record("w");
             return iot_wd_common_write("w", b, 2) == -1 && !tk::get_record("w");
         }},
        {Fallible::serialize,
         [] {
             int32_t value = 7;
             vexo_kv_entry_t e = {"k", VEXO_KV_INT, &value, 4};
             uint8_t *out = nullptr;
             uint32_t len = 0;
             const int32_t rc = iot_wd_utils_serialize(&e, 1, &out, &len);
             Free(out);
             return rc == -1 && out == nullptr;
         }},
        {Fallible::deserialize,
         [] {
             const std::vector<uint8_t> rec = tk::encode_record({{"k", VEXO_KV_INT, {7, 0, 0, 0}}});
             int32_t value = 0;
             vexo_kv_entry_t e = {"k", VEXO_KV_INT, &value, 4};
             return iot_wd_utils_deserialize(rec.data(), &e, 1) == -1 && value == 0;
         }},
        {Fallible::aes_init,
         [] {
             vexo_hw_aes_t ctx;
             const uint8_t key[16] = {};
             return vexo_hw_aes_crypt_init(&ctx, key) == -1;
         }},
        {Fallible::aes_update_key,
         [] {
             vexo_hw_aes_t ctx;
             std::memset(&ctx, 0, sizeof ctx);
             const uint8_t key[16] = {};
             return vexo_hw_aes_update_key(&ctx, key) == -1;
         }},
        {Fallible::aes_encrypt,
         [] {
             const uint8_t key[16] = {};
             uint8_t iv[16] = {};
             uint8_t in[4] = {1, 2, 3, 4};
             uint8_t out[16] = {};
             uint32_t out_len = sizeof out;
             return OpensslAES_CBC128_encrypt(in, 4, out, &out_len, key, iv) == -1;
         }},
        {Fallible::ring_open,
         [] {
             void *r = vexo_ipc_ring_buffer_open(0, 0, VEXO_STREAM_MAIN, 0);
             vexo_ipc_ring_buffer_close(r);
             return r == nullptr;
         }},
        {Fallible::ring_get,
         [] {
             void *r = vexo_ipc_ring_buffer_open(0, 0, VEXO_STREAM_MAIN, 0);
             tk::push_frame(VEXO_STREAM_MAIN, VEXO_FRAME_I, {1, 2}, tk::now_ms(), 0);
             const bool failed = vexo_ipc_ring_buffer_get_frame(r, 0) == nullptr;
             vexo_ipc_ring_buffer_close(r);
             return failed;
         }},
        {Fallible::storage_config,
         [] {
             vexo_storage_config_t cfg;
             std::memset(&cfg, 0, sizeof cfg);
             return cloud_get_storage_config(&cfg, 0) == -1 && cfg.event_duration == 0;
         }},
        {Fallible::restriction,
         [] {
             tk::set_default_restriction(0, 30, 10);
             vexo_storage_config_t cfg;
             std::memset(&cfg, 0, sizeof cfg);
             return cloud_get_storage_restriction_config(&cfg) == -1 && cfg.slice_duration == 0;
         }},
        {Fallible::api_post,
         [] {
             tk::queue_post_answer("api", 0, "{}");
             cJSON *result = nullptr;
             char body[] = "{}";
             const int32_t rc = iot_httpc_common_post_no_remalloc("api", "1.0", nullptr, "d", body,
                                                                  2, nullptr, &result);
             cJSON_Delete(result);
             return rc == -1 && result == nullptr;
         }},
        {Fallible::upload,
         [] {
             vexo_storage_config_t cfg;
             std::memset(&cfg, 0, sizeof cfg);
             const uint8_t b[1] = {9};
             return cloud_put_data_to_file(&cfg, "https", 0, "f", "media/av", b, 1) == -1 &&
                    tk::uploads().back().rc == -1;
         }},
        {Fallible::snapshot,
         [] {
             uint8_t buf[16];
             int32_t size = sizeof buf;
             return vexo_ipc_get_snapshot_cb(buf, &size) == -1;
         }},
        {Fallible::mqtt_attach, [] { return mqtt_attach(5, noop_handler) == -1; }},
        {Fallible::alarm,
         [] {
             vexo_alarm_event_t a;
             std::memset(&a, 0, sizeof a);
             const size_t before = tk::alarms().size();
             return vexo_ipc_alarm_event(&a) == -1 && tk::alarms().size() == before + 1;
         }},
        {Fallible::thread_create,
         [] {
             vexo_thread_t h = nullptr;
             const int32_t rc = CreateAndStart(&h, nullptr, nullptr, noop_thread, nullptr, nullptr);
             tk::wait_threads_exited(5000);
             return rc == -1 && h == nullptr;
         }},
        {Fallible::mutex_create,
         [] {
             vexo_mutex_t m = nullptr;
             return vexo_hal_mutex_create_init(&m) == -1 && m == nullptr;
         }},
    };
}

TEST_F(FaultPlan, EachKindFailsAsItsContractSaysOnlyWhileFailedAndIsCounted) {
    for (const Case &c : cases()) {
        SCOPED_TRACE(tk::fallible_name(c.kind));
        tk::reset();
        EXPECT_FALSE(c.call()) << "fails with no fault planned";
        tk::fail_every(c.kind, true);
        EXPECT_TRUE(c.call());
        EXPECT_TRUE(c.call());
        tk::faults_off();
        EXPECT_FALSE(c.call());
        EXPECT_GE(tk::fallible_calls(c.kind), 4u);
        EXPECT_EQ(tk::injected_faults().size(), 2u);
        EXPECT_EQ(tk::injected_faults().at(0).kind, c.kind);
    }
}

TEST_F(FaultPlan, NthFallibleCallCountsAcrossKindsAndFailsOnlyThatOne) {
    tk::fail_nth_fallible(3);
    void *a = Malloc(4); // 1
    vexo_mutex_t m = nullptr;
    EXPECT_EQ(vexo_hal_mutex_create_init(&m), 0); // 2
    void *b = vexo_hal_system_malloc(4);          // 3: fails
    void *c = vexo_hal_system_malloc(4);          // 4
    EXPECT_EQ(tk::calls("vexo_hal_system_free"), 0u);
    EXPECT_NE(a, nullptr);
    EXPECT_EQ(b, nullptr);
    EXPECT_NE(c, nullptr);
    EXPECT_EQ(tk::fallible_calls(), 4u);
    EXPECT_EQ(tk::fallible_calls(Fallible::system_malloc), 2u);
    ASSERT_EQ(tk::injected_faults().size(), 1u);
    EXPECT_EQ(tk::injected_faults()[0].index, 3u);
    EXPECT_EQ(tk::injected_faults()[0].kind, Fallible::system_malloc);
    // A failure queued the older way is still honoured, and the call still counted.
    tk::queue_result("mqtt_attach", -7);
    EXPECT_EQ(mqtt_attach(1, noop_handler), -7);
    EXPECT_EQ(tk::fallible_calls(Fallible::mqtt_attach), 1u);
    Free(a);
    vexo_hal_system_free(c);
}

} // namespace
