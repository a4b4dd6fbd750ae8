// SPDX-License-Identifier: Apache-2.0
// Selects the set of a block. Used by every operation on a single record.
#pragma once

#include <cstddef>
#include <cstdint>

#include "records/PointerSet.h"
#include "tracker/control/MemTrackControl.h"

/// Returns the usable size of a heap block; 0 for null. Asks the C library directly: the thread is
/// marked already, so the exported entry would do no more. Does not ask about null: a thread that
/// exits frees null pointers after its keys are gone, when some allocators cannot be asked.
inline std::size_t UsableSize(const void* pointer) {
  if (pointer == nullptr) return 0;
  return MemTrackControl::GetInstance()->dispatch()->malloc_usable_size(pointer);
}

/// Returns the size that determines the size class: the usable size if the current kind is the
/// native heap, else `size`. Intentional: uses the current kind, not the kind at the time of
/// recording.
inline std::size_t ClassSize(const void* pointer, std::size_t size) {
  return MemTrackControl::GetMemTrackType() == MemTrackType::NATIVE ? UsableSize(pointer) : size;
}

/// A set (null for none) and the number of its size class.
struct SetChoice {
  PointerSet* set;
  std::uint32_t size_class;
};

/// Returns the number of the set of `address` and `size_class`. Consecutive 512-byte stripes of the
/// address space belong to consecutive shards.
inline std::uint64_t SetNumber(std::uint64_t address, std::uint32_t size_class) {
  constexpr std::uint64_t kStripeBytes = 512;
  return address / kStripeBytes % PointerSet::kShardCount * PointerSet::kSizeClasses + size_class;
}

/// Returns the set of `address` and `class_size`. There is none before the first Initialize, and
/// for a class size of 2^64-1.
inline SetChoice SelectSet(std::uint64_t address, std::uint64_t class_size) {
  PointerSet* const sets = PointerSet::All();
  if (sets == nullptr || class_size == UINT64_MAX) return {nullptr, 0};
  std::uint32_t size_class = 0;
  for (std::uint32_t i = 1; i < PointerSet::kSizeClasses; ++i) {
    size_class += static_cast<std::uint32_t>(class_size >= PointerSet::kSizeBounds[i]);
  }
  return {sets + SetNumber(address, size_class), size_class};
}
