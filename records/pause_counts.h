// SPDX-License-Identifier: Apache-2.0
// The number of records per set, counted only during a pause: a pause ends when any set is empty.
//
// Counting writes to cache lines that all threads share, so it is off unless a pause needs it.
#pragma once

#include <atomic>
#include <cstdint>

#include "records/PointerSet.h"
#include "records/record_store.h"
#include "records/set_selection.h"

namespace pause_counts {

/// The generation of the counted records; 0 while counting is off.
inline std::atomic<std::uint32_t> counted_generation{0};
inline std::atomic<std::int64_t> counts[PointerSet::kCount] = {};

/// Whether the counts are valid. Any thread.
inline bool IsCounting() {
  const std::uint32_t counted = counted_generation.load(std::memory_order_acquire);
  return counted != 0 && counted == record_store::Generation();
}

/// Counts a new (`change` 1) or removed (-1) record of `set`. Under the lock of its page.
inline void Change(std::uint64_t set, int change) {
  if (counted_generation.load(std::memory_order_relaxed) == 0) return;
  counts[set].fetch_add(change, std::memory_order_relaxed);
}

/// Counts all records and starts counting. The caller keeps record operations out.
inline void Start() {
  for (auto& count : counts) count.store(0, std::memory_order_relaxed);
  const std::uint32_t generation = record_store::Generation();
  record_store::ForEachRecord([](std::uint64_t address, const Record& record) {
    if (RecordKey::IsKept(record.key)) return;
    const std::uint64_t set = SetNumber(address, RecordKey::SizeClass(record.key));
    counts[set].fetch_add(1, std::memory_order_relaxed);
  });
  counted_generation.store(generation, std::memory_order_release);
}

/// Stops counting. Any thread. Writes nothing if counting is off.
inline void Stop() {
  if (counted_generation.load(std::memory_order_relaxed) != 0) counted_generation.store(0);
}

/// Whether any set is empty. Any thread; a stale count only delays the end of a pause.
inline bool AnySetEmpty() {
  for (const auto& count : counts) {
    if (count.load(std::memory_order_relaxed) <= 0) return true;
  }
  return false;
}

}  // namespace pause_counts
