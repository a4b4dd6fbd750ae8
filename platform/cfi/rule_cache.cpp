// SPDX-License-Identifier: Apache-2.0
// The table of rules: open addressing, insertion by compare-and-swap, larger tables published as
// they are needed. Any thread, any context.
#include "platform/cfi/rule_cache.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>

namespace platform::cfi {
namespace {

/// The first table's size: 64 KiB, of which only used pages take memory.
constexpr std::size_t kFirstSlots = 4096;
/// At most one slot in four is used, so that a second probe is rare.
constexpr std::size_t kSlotsPerKey = 4;
constexpr std::size_t kGrowth = 4;
/// Beyond this (64 MiB) rules are made anew for each capture.
constexpr std::size_t kMostSlots = std::size_t{1} << 22;

}  // namespace

RuleCache::EmptyTable RuleCache::g_empty;
std::atomic<RuleCache::Table*> RuleCache::g_table{&g_empty.head};
std::atomic<std::uint64_t> RuleCache::g_unloads{0};
const std::atomic<std::uint64_t> RuleCache::g_nobody_counts{0};
std::atomic<const std::atomic<std::uint64_t>*> RuleCache::g_observed_unloads{&g_nobody_counts};
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

/// Puts `rule` into the slot of `key`. False when there is no room near its place.
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

/// Puts `table` in the place of `old_table`. False when another thread was faster; then it is given
/// back.
bool RuleCache::Publish(Table* old_table, Table* table) {
  const int saved_errno = errno;
  table->previous = old_table == &g_empty.head ? nullptr : old_table;
  Table* expected = old_table;
  const bool published =
      g_table.compare_exchange_strong(expected, table, std::memory_order_acq_rel);
  if (!published) {
    munmap(table, table->Bytes());
  } else if (old_table->previous != nullptr) {
    // Readers of the table before `old_table` are rare. They may find it empty. Its first page
    // stays.
    auto* head = reinterpret_cast<char*>(old_table->previous);
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    const std::size_t bytes = old_table->previous->Bytes();
    if (bytes > page) madvise(head + page, bytes - page, MADV_DONTNEED);
  }
  errno = saved_errno;
  return published;
}

/// How many slots a table needs that takes the rules of `generation` from `table`, which has no
/// room; 0 when there may be no such table.
std::size_t RuleCache::SlotsFor(const Table& table, std::uint64_t generation) {
  if (table.slots == 0) return kFirstSlots;
  const std::size_t larger = table.slots * kGrowth > kMostSlots ? 0 : table.slots * kGrowth;
  const bool is_crowded = table.used.load(std::memory_order_relaxed) * kSlotsPerKey < table.slots;
  if (is_crowded) return larger;
  // Where most rules are of objects that are gone, no larger one is needed.
  std::size_t live = 0;
  for (std::size_t i = 0; i < table.slots + kProbes; ++i) {
    if (table.RuleAt(i).IsOf(generation)) ++live;
  }
  return live * kSlotsPerKey * 2 > table.slots ? larger : table.slots;
}

/// Replaces `table`, which has no room, by one with the rules of `generation` and room for more.
/// Returns the table in use; null without memory, and when there may be no larger one.
RuleCache::Table* RuleCache::Replace(Table* table, std::uint64_t generation) {
  const std::size_t slots = SlotsFor(*table, generation);
  Table* larger = slots == 0 ? nullptr : MakeTable(slots);
  if (larger == nullptr) return nullptr;
  if (!Publish(table, larger)) return g_table.load(std::memory_order_acquire);
  const std::size_t old_slots = table->slots == 0 ? 0 : table->slots + kProbes;
  for (std::size_t i = 0; i < old_slots; ++i) {
    const Rule rule = table->RuleAt(i);
    // Another thread's insertion may show its rule before its key.
    const std::uint64_t key = table->Slots()[i].key.load(std::memory_order_relaxed);
    if (key != 0 && rule.IsOf(generation)) Insert(larger, key, rule);
  }
  return larger;
}

/// Generations are numbered in rounds. Each generation begins with misses, so rules that were made
/// in one half of a round are gone before their numbers are used again in the next round.
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
