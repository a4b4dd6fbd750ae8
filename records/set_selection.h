// Which set a block belongs to. Used by every operation on a single record.
#pragma once

#include <cstddef>
#include <cstdint>

#include "records/PointerData.h"
#include "records/PointerSet.h"
#include "tracker/MemTrackControl.h"

/// The usable size of a heap block, straight from the C library: the thread is marked already, so
/// the exported entry would do no more. Null has none, and is not asked about: a thread that ends
/// frees null pointers after its keys are gone, when some allocators may no longer be asked.
inline std::size_t UsableSize(const void* pointer) {
  if (pointer == nullptr) return 0;
  return MemTrackControl::GetInstance()->dispatch()->malloc_usable_size(pointer);
}

/// The size that decides the class: the usable size of a heap block, for the other kinds the size
/// as given. The kind is the one in force now, not the one the record was made under.
inline std::size_t ClassSize(const void* pointer, std::size_t size) {
  return MemTrackControl::GetMemTrackType() == MemTrackType::NATIVE ? UsableSize(pointer) : size;
}

/// Starts to fetch the lines where a record of `address` may stand, one for each class of its
/// shard. Asking the C library for a block's size means waiting for the block's own header, which
/// is as cold as the record; this has both arrive together.
inline void PrefetchRecord(const PointerSet* sets, std::uint64_t address) {
  const std::uint64_t shard =
      address / (4096 / PointerData::kShardCount) % PointerData::kShardCount;
  const PointerSet* const first = sets + shard * PointerData::kSizeClasses;
  for (std::uint64_t i = 0; i < PointerData::kSizeClasses; ++i) {
    first[i].pointers.Prefetch(address);
  }
}

/// The set of `address` and `class_size`: 512-byte stripes of the address space go to the shards
/// in turn. Null when there are no sets or the class size is 2^64-1, which has no class.
inline PointerSet* SelectSet(PointerSet* sets, std::uint64_t address, std::uint64_t class_size) {
  if (sets == nullptr || class_size == UINT64_MAX) return nullptr;
  const std::uint64_t size_class =
      static_cast<std::uint64_t>(class_size >= 32) + static_cast<std::uint64_t>(class_size >= 40) +
      static_cast<std::uint64_t>(class_size >= 80) + static_cast<std::uint64_t>(class_size >= 128);
  const std::uint64_t shard =
      address / (4096 / PointerData::kShardCount) % PointerData::kShardCount;
  return sets + shard * PointerData::kSizeClasses + size_class;
}
