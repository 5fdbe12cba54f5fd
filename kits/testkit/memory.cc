// The two allocators, backed by malloc, with accounting per pool and scriptable failures. A
// block freed through the wrong pool or not allocated here is recorded as misuse.
#include <cstdlib>
#include <map>
#include <mutex>
#include <sstream>

#include "kit_internal.h"
#include "test_kit.h"

namespace {

struct PoolState {
    std::map<void *, std::pair<size_t, uint64_t>> blocks; // size, allocation order
    uint64_t calls = 0;
    uint64_t failed = 0;
    uint64_t bytes = 0;
    uint64_t peak = 0;
    uint64_t order = 0;
    uint32_t fail_countdown = 0; // the call that brings it from 1 to 0 fails
    std::vector<size_t> fail_sizes;
};

std::mutex g_mu;
PoolState g_pools[2];

PoolState &pool_of(tk::Pool pool) {
    return g_pools[pool == tk::Pool::malloc ? 0 : 1];
}

void *take_locked(PoolState &p, size_t size) {
    void *block = std::malloc(size == 0 ? 1 : size);
    if (block == nullptr) {
        return nullptr;
    }
    p.blocks[block] = {size, p.order++};
    p.bytes += size;
    if (p.bytes > p.peak) {
        p.peak = p.bytes;
    }
    return block;
}

void *allocate(tk::Pool pool, size_t size) {
    bool fail = tk::detail::fault(pool == tk::Pool::malloc ? tk::Fallible::malloc
                                                           : tk::Fallible::system_malloc);
    std::lock_guard<std::mutex> lock(g_mu);
    PoolState &p = pool_of(pool);
    ++p.calls;
    if (p.fail_countdown > 0 && --p.fail_countdown == 0) {
        fail = true;
    }
    for (auto it = p.fail_sizes.begin(); !fail && it != p.fail_sizes.end(); ++it) {
        if (*it == size) {
            p.fail_sizes.erase(it);
            fail = true;
            break;
        }
    }
    if (fail) {
        ++p.failed;
        return nullptr;
    }
    return take_locked(p, size);
}

void release(tk::Pool pool, void *ptr, const char *what) {
    if (ptr == nullptr) {
        return;
    }
    std::string problem;
    {
        std::lock_guard<std::mutex> lock(g_mu);
        PoolState &p = pool_of(pool);
        PoolState &other = pool_of(pool == tk::Pool::malloc ? tk::Pool::system : tk::Pool::malloc);
        auto it = p.blocks.find(ptr);
        if (it != p.blocks.end()) {
            p.bytes -= it->second.first;
            p.blocks.erase(it);
            std::free(ptr);
            return;
        }
        std::ostringstream msg;
        auto oit = other.blocks.find(ptr);
        if (oit != other.blocks.end()) {
            // Released anyway so that the wrong call does not also show as a leak.
            other.bytes -= oit->second.first;
            other.blocks.erase(oit);
            msg << what << " of a block from the other allocator " << ptr;
            std::free(ptr);
        } else {
            msg << what << " of a pointer not allocated or already freed " << ptr;
        }
        problem = msg.str();
    }
    tk::detail::record_misuse("memory", problem);
}

} // namespace

namespace tk::detail {

void *kit_block(size_t size) {
    std::lock_guard<std::mutex> lock(g_mu);
    return take_locked(pool_of(tk::Pool::malloc), size);
}

void reset_memory() {
    std::lock_guard<std::mutex> lock(g_mu);
    for (PoolState &p : g_pools) {
        for (auto &b : p.blocks) {
            std::free(b.first);
        }
        p = PoolState();
    }
}

} // namespace tk::detail

namespace tk {

AllocStats alloc_stats(Pool pool) {
    std::lock_guard<std::mutex> lock(g_mu);
    PoolState &p = pool_of(pool);
    return AllocStats{p.calls, p.failed, p.blocks.size(), p.bytes, p.peak};
}

void fail_alloc_call(Pool pool, uint32_t nth) {
    std::lock_guard<std::mutex> lock(g_mu);
    pool_of(pool).fail_countdown = nth;
}

void fail_alloc_size(Pool pool, size_t size) {
    std::lock_guard<std::mutex> lock(g_mu);
    pool_of(pool).fail_sizes.push_back(size);
}

std::vector<size_t> outstanding_blocks(Pool pool) {
    std::lock_guard<std::mutex> lock(g_mu);
    std::map<uint64_t, size_t> by_order;
    for (auto &b : pool_of(pool).blocks) {
        by_order[b.second.second] = b.second.first;
    }
    std::vector<size_t> out;
    out.reserve(by_order.size());
    for (auto &o : by_order) {
        out.push_back(o.second);
    }
    return out;
}

} // namespace tk

extern "C" {

void *Malloc(size_t size) {
    tk::detail::count("Malloc");
    return allocate(tk::Pool::malloc, size);
}

void Free(void *ptr) {
    tk::detail::count("Free");
    release(tk::Pool::malloc, ptr, "Free");
}

void *vexo_hal_system_malloc(size_t size) {
    tk::detail::count("vexo_hal_system_malloc");
    return allocate(tk::Pool::system, size);
}

void vexo_hal_system_free(void *ptr) {
    tk::detail::count("vexo_hal_system_free");
    release(tk::Pool::system, ptr, "vexo_hal_system_free");
}

} // extern "C"
