// SPDX-License-Identifier: Apache-2.0
// The table of rules: open addressing, with insertion by compare-and-swap. A full table is replaced
// by a larger one. Any thread, any context.
#include "platform/cfi/rule_cache.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>

namespace platform::cfi {
namespace {

/// Size of the first table: 64 KiB. Only used pages take memory.
constexpr std::size_t kFirstSlots = 4096;
/// At most one slot in four is used, so that a second probe is rare.
constexpr std::size_t kSlotsPerKey = 4;
constexpr std::size_t kGrowth = 4;
/// Maximum size (64 MiB). Rules that do not fit are computed again by each capture.
constexpr std::size_t kMaxSlots = std::size_t{1} << 22;

}  // namespace

RuleCache::EmptyTable RuleCache::g_empty;
std::atomic<RuleCache::Table*> RuleCache::g_table{&g_empty.head};
std::atomic<std::uint64_t> RuleCache::g_unloads{0};
const std::atomic<std::uint64_t> RuleCache::g_no_unloads{0};
std::atomic<const std::atomic<std::uint64_t>*> RuleCache::g_observed_unloads{&g_no_unloads};
std::atomic<std::uint64_t> RuleCache::g_half_rounds{0};

Rule RuleCache::FindFurther(const Slot* slot, std::uint64_t return_address) {
  for (std::size_t probe = 1; probe < kProbes; ++probe) {
    const std::uint64_t key = slot[probe].key.load(std::memory_order_relaxed);
    if (key == return_address) return Rule(slot[probe].rule.load(std::memory_order_relaxed));
    if (key == 0) break;
  }
  return Rule();
}

RuleCache::Table* RuleCache::MakeTable(std::size_t slots) {
  const int saved_errno = errno;
  void* memory = mmap(nullptr, sizeof(Table) + (slots + kProbes) * sizeof(Slot),
                      PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  errno = saved_errno;
  if (memory == MAP_FAILED) return nullptr;
  auto* table = static_cast<Table*>(memory);
  table->slots = slots;
  table->mask = (slots - 1) * kSlotWords;
  return table;
}

/// Stores `rule` in a slot for `key`. Returns false if all slots that the key may use are taken.
bool RuleCache::Insert(Table* table, std::uint64_t key, Rule rule) {
  Slot* slot = table->Slots() + PlaceOf(table->mask, key) / kSlotWords;
  for (std::size_t probe = 0; probe < kProbes; ++probe, ++slot) {
    std::uint64_t present = slot->key.load(std::memory_order_relaxed);
    if (present == 0 &&
        slot->key.compare_exchange_strong(present, key, std::memory_order_relaxed)) {
      table->used.fetch_add(1, std::memory_order_relaxed);
      present = key;
    }
    if (present == key) {
      slot->rule.store(rule.word(), std::memory_order_relaxed);
      return true;
    }
  }
  return false;
}

/// Replaces `old_table` by `table`. Returns false if another thread replaced it first; then `table`
/// is unmapped.
bool RuleCache::Publish(Table* old_table, Table* table) {
  const int saved_errno = errno;
  table->previous = old_table == &g_empty.head ? nullptr : old_table;
  Table* expected = old_table;
  const bool published =
      g_table.compare_exchange_strong(expected, table, std::memory_order_acq_rel);
  if (!published) {
    munmap(table, table->Bytes());
  } else if (old_table->previous != nullptr) {
    // A capture rarely still reads the table before `old_table`. It may find that table empty. The
    // first page stays, since it contains the head.
    auto* head = reinterpret_cast<char*>(old_table->previous);
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    const std::size_t bytes = old_table->previous->Bytes();
    if (bytes > page) madvise(head + page, bytes - page, MADV_DONTNEED);
  }
  errno = saved_errno;
  return published;
}

/// Returns the number of slots for the table that replaces the full `table` and takes over its
/// rules of `generation`; 0 if `table` already has the maximum size.
std::size_t RuleCache::SlotsFor(const Table& table, std::uint64_t generation) {
  if (table.slots == 0) return kFirstSlots;
  const std::size_t larger = table.slots * kGrowth > kMaxSlots ? 0 : table.slots * kGrowth;
  const bool is_crowded = table.used.load(std::memory_order_relaxed) * kSlotsPerKey < table.slots;
  if (is_crowded) return larger;
  // If most rules are obsolete, a table of the same size is enough.
  std::size_t live = 0;
  for (std::size_t i = 0; i < table.slots + kProbes; ++i) {
    if (table.RuleAt(i).IsOf(generation)) ++live;
  }
  return live * kSlotsPerKey * 2 > table.slots ? larger : table.slots;
}

/// Replaces the full `table` by one with the rules of `generation` and room for more. Returns the
/// current table; null if there is no memory or `table` already has the maximum size.
RuleCache::Table* RuleCache::Replace(Table* table, std::uint64_t generation) {
  const std::size_t slots = SlotsFor(*table, generation);
  Table* larger = slots == 0 ? nullptr : MakeTable(slots);
  if (larger == nullptr) return nullptr;
  if (!Publish(table, larger)) return g_table.load(std::memory_order_acquire);
  const std::size_t old_slots = table->slots == 0 ? 0 : table->slots + kProbes;
  for (std::size_t i = 0; i < old_slots; ++i) {
    const Rule rule = table->RuleAt(i);
    // Another thread may be inserting: its rule may be visible before its key.
    const std::uint64_t key = table->Slots()[i].key.load(std::memory_order_relaxed);
    if (key != 0 && rule.IsOf(generation)) Insert(larger, key, rule);
  }
  return larger;
}

/// Generation numbers wrap around. A rule must be gone before its number is used again, so the
/// table is cleared once per half round. Each generation starts with misses, and each miss calls
/// this.
void RuleCache::EndHalfRound() {
  const std::uint64_t half = Unloads() >> (Rule::kGenerationBits - 2);
  std::uint64_t known = g_half_rounds.load(std::memory_order_relaxed);
  if (known == half || !g_half_rounds.compare_exchange_strong(known, half)) return;
  Table* table = g_table.load(std::memory_order_acquire);
  const std::size_t slots = table->slots == 0 ? 0 : table->slots + kProbes;
  for (std::size_t i = 0; i < slots; ++i) {
    table->Slots()[i].rule.store(0, std::memory_order_relaxed);
  }
}

void RuleCache::Add(std::uint64_t return_address, Rule rule) const {
  rule = rule.WithGeneration(generation_);
  EndHalfRound();
  Table* table = g_table.load(std::memory_order_acquire);
  if (table->used.load(std::memory_order_relaxed) * kSlotsPerKey >= table->slots) {
    table = Replace(table, generation_);
  }
  if (table == nullptr || Insert(table, return_address, rule)) return;
  table = Replace(table, generation_);
  if (table != nullptr) Insert(table, return_address, rule);
}

}  // namespace platform::cfi
