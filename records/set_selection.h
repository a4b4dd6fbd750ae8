// Which set a block belongs to. Used by every operation on a single record.
#pragma once

#include <cstddef>
#include <cstdint>

#include "records/PointerSet.h"
#include "tracker/control/MemTrackControl.h"

/// The usable size of a heap block, straight from the C library: the thread is marked already, so
/// the exported entry would do no more. Null has none, and is not asked about: a thread that ends
/// frees null pointers after its keys are gone, when some allocators may no longer be asked.
inline std::size_t UsableSize(const void* pointer) {
  if (pointer == nullptr) return 0;
  return MemTrackControl::GetInstance()->dispatch()->malloc_usable_size(pointer);
}

/// The size that decides the class of a heap block: the usable size while the heap is the kind in
/// force, else the size as given. The kind is the one in force now, not the one that the record was
/// made under.
inline std::size_t ClassSize(const void* pointer, std::size_t size) {
  return MemTrackControl::GetMemTrackType() == MemTrackType::NATIVE ? UsableSize(pointer) : size;
}

/// A set, null for none, and the number of its size class.
struct SetChoice {
  PointerSet* set;
  std::uint32_t size_class;
};

/// Number of the set of `address` and `size_class`: 512-byte stripes of the address space go to the
/// shards in turn.
inline std::uint64_t SetNumber(std::uint64_t address, std::uint32_t size_class) {
  const std::uint64_t shard = address / (4096 / PointerSet::kShardCount) % PointerSet::kShardCount;
  return shard * PointerSet::kSizeClasses + size_class;
}

/// The set of `address` and `class_size`; none when there are no sets or the class size is 2^64-1,
/// which has no class.
inline SetChoice SelectSet(std::uint64_t address, std::uint64_t class_size) {
  PointerSet* const sets = PointerSet::All();
  if (sets == nullptr || class_size == UINT64_MAX) return {nullptr, 0};
  const std::uint32_t size_class =
      static_cast<std::uint32_t>(class_size >= 32) + static_cast<std::uint32_t>(class_size >= 40) +
      static_cast<std::uint32_t>(class_size >= 80) + static_cast<std::uint32_t>(class_size >= 128);
  return {sets + SetNumber(address, size_class), size_class};
}
