// Growth and clearing of the table of live blocks.
#include "records/record_table.h"

#include "records/table_memory.h"

namespace {

/// One page.
constexpr std::uint64_t kFirstCapacity = 128;
/// A table is at most 7/10 full, for short probes, and grows by 7/20: it is never less than 0.51
/// full after it has grown, which bounds it to 62 bytes a record.
constexpr std::uint64_t kLoadNumerator = 7;
constexpr std::uint64_t kLoadDenominator = 10;
constexpr std::uint64_t kGrowthNumerator = 27;
constexpr std::uint64_t kGrowthDenominator = 20;

}  // namespace

std::size_t RecordTable::NextBytes() const {
  const std::uint64_t next =
      capacity() == 0 ? kFirstCapacity : capacity() * kGrowthNumerator / kGrowthDenominator;
  return next * sizeof(Record);
}

void RecordTable::Extend(void* memory, std::size_t bytes) {
  const std::uint64_t old_capacity = capacity();
  Record* const old_slots = slots_.load(std::memory_order_relaxed);
  const std::uint64_t new_capacity = bytes / sizeof(Record);
  auto* const new_slots = static_cast<Record*>(memory);
  for (std::uint64_t i = 0; i < old_capacity; ++i) {
    if (old_slots[i].backtrace == 0) continue;
    std::uint64_t slot = Home(old_slots[i].address, new_capacity);
    while (new_slots[slot].backtrace != 0) {
      if (++slot == new_capacity) slot = 0;
    }
    new_slots[slot] = old_slots[i];
  }
  slots_.store(new_slots, std::memory_order_relaxed);
  capacity_.store(new_capacity, std::memory_order_relaxed);
  limit_ = new_capacity * kLoadNumerator / kLoadDenominator;
  table_memory::Free(old_slots, old_capacity * sizeof(Record));
}

void RecordTable::Clear() {
  Record* const slots = slots_.load(std::memory_order_relaxed);
  const std::uint64_t old_capacity = capacity();
  slots_.store(nullptr, std::memory_order_relaxed);
  capacity_.store(0, std::memory_order_relaxed);
  size_.store(0, std::memory_order_relaxed);
  limit_ = 0;
  table_memory::Free(slots, old_capacity * sizeof(Record));
}
