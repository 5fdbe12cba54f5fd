// The fault plan: every fallible platform call is counted, overall and per kind, and the plan
// decides whether it fails. Entry points that go through detail::enter are mapped by their C
// name; the allocators and the ring-buffer get calls ask detail::fault themselves.
#include <array>
#include <cstring>
#include <mutex>

#include "kit_internal.h"
#include "test_kit.h"

namespace {

constexpr size_t kKinds = static_cast<size_t>(tk::Fallible::kind_count);

struct Plan {
    uint64_t total = 0;
    std::array<uint64_t, kKinds> per_kind{};
    uint64_t fail_nth = 0; // overall index, 1 = first fallible call since reset; 0: none
    std::array<bool, kKinds> fail_all{};
    std::vector<tk::InjectedFault> injected;
};

std::mutex g_mu;
Plan g_plan;

struct EntryKind {
    const char *entry;
    tk::Fallible kind;
};

constexpr EntryKind kEntryKinds[] = {
    {"iot_wd_common_read", tk::Fallible::kv_read},
    {"iot_wd_common_write", tk::Fallible::kv_write},
    {"iot_wd_utils_serialize", tk::Fallible::serialize},
    {"iot_wd_utils_deserialize", tk::Fallible::deserialize},
    {"vexo_hw_aes_crypt_init", tk::Fallible::aes_init},
    {"vexo_hw_aes_update_key", tk::Fallible::aes_update_key},
    {"vexo_hw_aes_encrypt_cbc", tk::Fallible::aes_encrypt},
    {"OpensslAES_CBC128_encrypt", tk::Fallible::aes_encrypt},
    {"vexo_ipc_ring_buffer_open", tk::Fallible::ring_open},
    {"vexo_ipc_ring_buffer_anchor_user", tk::Fallible::ring_anchor},
    {"vexo_ipc_ring_buffer_sync_stream", tk::Fallible::ring_sync},
    {"cloud_get_storage_config", tk::Fallible::storage_config},
    {"cloud_get_storage_restriction_config", tk::Fallible::restriction},
    {"iot_httpc_common_post_no_remalloc", tk::Fallible::api_post},
    {"cloud_put_data_to_file", tk::Fallible::upload},
    {"vexo_ipc_alarm_event", tk::Fallible::alarm},
    {"vexo_ipc_get_snapshot_cb", tk::Fallible::snapshot},
    {"mqtt_attach", tk::Fallible::mqtt_attach},
    {"CreateAndStart", tk::Fallible::thread_create},
    {"vexo_hal_mutex_create_init", tk::Fallible::mutex_create},
};

constexpr const char *kNames[kKinds] = {
    "malloc",    "system_malloc",  "kv_read",       "kv_write",     "serialize",   "deserialize",
    "aes_init",  "aes_update_key", "aes_encrypt",   "ring_open",    "ring_anchor", "ring_get",
    "ring_sync", "storage_config", "restriction",   "api_post",     "upload",      "alarm",
    "snapshot",  "mqtt_attach",    "thread_create", "mutex_create",
};

} // namespace

namespace tk::detail {

std::optional<tk::Fallible> fallible_kind(const char *entry) {
    for (const EntryKind &e : kEntryKinds) {
        if (std::strcmp(e.entry, entry) == 0) {
            return e.kind;
        }
    }
    return std::nullopt;
}

bool fault(tk::Fallible kind) {
    const size_t k = static_cast<size_t>(kind);
    std::lock_guard<std::mutex> lock(g_mu);
    const uint64_t index = ++g_plan.total;
    ++g_plan.per_kind[k];
    if (index != g_plan.fail_nth && !g_plan.fail_all[k]) {
        return false;
    }
    g_plan.injected.push_back(tk::InjectedFault{index, kind, current_thread_name()});
    return true;
}

void reset_faults() {
    std::lock_guard<std::mutex> lock(g_mu);
    g_plan = Plan();
}

} // namespace tk::detail

namespace tk {

const char *fallible_name(Fallible kind) {
    const size_t k = static_cast<size_t>(kind);
    return k < kKinds ? kNames[k] : "?";
}

uint64_t fallible_calls() {
    std::lock_guard<std::mutex> lock(g_mu);
    return g_plan.total;
}

uint64_t fallible_calls(Fallible kind) {
    std::lock_guard<std::mutex> lock(g_mu);
    return g_plan.per_kind[static_cast<size_t>(kind)];
}

void fail_nth_fallible(uint64_t n) {
    std::lock_guard<std::mutex> lock(g_mu);
    g_plan.fail_nth = n;
}

void fail_every(Fallible kind, bool on) {
    std::lock_guard<std::mutex> lock(g_mu);
    g_plan.fail_all[static_cast<size_t>(kind)] = on;
}

void faults_off() {
    std::lock_guard<std::mutex> lock(g_mu);
    g_plan.fail_nth = 0;
    g_plan.fail_all.fill(false);
}

std::vector<InjectedFault> injected_faults() {
    std::lock_guard<std::mutex> lock(g_mu);
    return g_plan.injected;
}

} // namespace tk
