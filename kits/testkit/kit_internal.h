/// What crosses files inside the test kit: the call registry, misuse records, the allocator
/// used for blocks the kit hands out, and each service group's reset.
#ifndef VEXO_TEST_KIT_INTERNAL_H
#define VEXO_TEST_KIT_INTERNAL_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "test_kit.h"

namespace tk::detail {

/// Counts a call of the named entry point, runs its hook (outside every kit lock) and returns
/// the scripted result queued for it, if any. Call it first thing, holding no kit lock.
std::optional<int32_t> enter(const char *entry);
/// Counts a call without looking at hooks or scripted results (for the hottest paths).
void count(const char *entry);
/// Counts a fallible call of that kind; true when the fault plan makes it fail.
bool fault(tk::Fallible kind);
/// The kind of fallible call an entry point going through enter() is, if any.
std::optional<tk::Fallible> fallible_kind(const char *entry);
void record_misuse(const char *category, const std::string &message);

/// Name of the kit thread running the caller, "" for other threads.
const std::string &current_thread_name();

/// A block from the Malloc pool made by the kit itself (serialiser output): tracked like the
/// module's own so that Free accepts it, but not counted as a module call nor made to fail.
void *kit_block(size_t size);

uint32_t posix_now();

void reset_state();
void reset_clock();
/// Joins finished threads; returns how many were still running (those are detached).
size_t reset_threads();
void reset_mutexes(bool threads_gone);
void reset_memory();
void reset_random();
void reset_logs();
void reset_kv();
void reset_crypto();
void reset_ring_buffer();
void reset_cloud();
void reset_device();
void reset_faults();

} // namespace tk::detail

#endif
