// SPDX-License-Identifier: Apache-2.0
// The cache of rules by return address, for the whole process.
//
// Captures read it on every thread and in signal handlers. Reading takes no lock and writes
// nothing; a miss adds a rule. Memory comes from mmap and is never unmapped, because another thread
// may be reading it. A forked child inherits the table.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "arch/unwind.h"
#include "platform/cfi/rule.h"

namespace platform::cfi {

/// One capture's view of the cache: the current table and generation when the capture starts. A
/// rule of another generation is invalid: it may belong to an object that was unloaded since.
class RuleCache {
 public:
  RuleCache() {
    const Table* table = g_table.load(std::memory_order_acquire);
    slots_ = table->Slots();
    mask_ = table->mask;
    generation_ = Generation(Unloads());
  }

  std::uint64_t generation() const { return generation_; }

  /// Returns the rule for `return_address`. If it is unknown, the result has no generation or an
  /// earlier one.
  __attribute__((always_inline)) Rule Find(std::uint64_t return_address) const {
    const std::uint64_t place = PlaceOf(mask_, return_address);
    // The key has a separate address, so that the load of the rule, which is on the critical path,
    // does not wait for the load of the key.
    std::uint64_t key_place = place;
    __asm__("" : "+r"(key_place));
    const auto* words = reinterpret_cast<const std::atomic<std::uint64_t>*>(slots_);
    const Rule rule(words[place].load(std::memory_order_relaxed));
    if (__builtin_expect(words[key_place + 1].load(std::memory_order_relaxed) == return_address,
                         1)) {
      return rule;
    }
    return FindFurther(slots_ + place / kSlotWords, return_address);
  }

  /// Adds a rule of this view's generation. Does nothing if there is no memory.
  void Add(std::uint64_t return_address, Rule rule) const;

  /// Whether the rules of this view are still valid.
  bool IsCurrent() const { return Generation(Unloads()) == generation_; }

  /// Invalidates all rules. Call it after an object was unloaded. Any thread, any context.
  static void EndGeneration() { g_unloads.fetch_add(1, std::memory_order_acq_rel); }

  /// Also invalidates all rules whenever `unloads` grows. `unloads` must never be destroyed. Call
  /// it at start-up.
  static void Observe(const std::atomic<std::uint64_t>* unloads) {
    g_observed_unloads.store(unloads, std::memory_order_release);
  }

 private:
  /// The key of a slot never changes. The rule is overwritten once its generation has ended.
  struct Slot {
    std::atomic<std::uint64_t> rule;
    std::atomic<std::uint64_t> key;
  };
  static constexpr std::size_t kSlotWords = 2;
  static_assert(sizeof(Slot) == kSlotWords * sizeof(std::uint64_t));

  /// Number of consecutive slots that a key may use. A table has this many extra slots at its end.
  static constexpr std::size_t kProbes = 8;

  /// The head of a table. `slots` + kProbes slots follow.
  struct alignas(64) Table {
    std::uint64_t mask;
    std::size_t slots;
    std::atomic<std::size_t> used;
    /// The table that this one replaced.
    Table* previous;

    Slot* Slots() { return reinterpret_cast<Slot*>(this + 1); }
    const Slot* Slots() const { return reinterpret_cast<const Slot*>(this + 1); }
    Rule RuleAt(std::size_t slot) const {
      return Rule(Slots()[slot].rule.load(std::memory_order_relaxed));
    }
    std::size_t Bytes() const { return sizeof(Table) + (slots + kProbes) * sizeof(Slot); }
  };

  /// The initial table, which is always full.
  struct EmptyTable {
    Table head{};
    Slot slots[kProbes]{};
  };

  /// Returns the index of the first slot for `key`, in words. Uses the low bits of the key
  /// unchanged, so that the call sites of one function are in few pages.
  static std::uint64_t PlaceOf(std::uint64_t mask, std::uint64_t key) {
    return (key >> (arch::kCallSiteShift - 1)) & mask;
  }

  static std::uint64_t Unloads() {
    const auto* observed = g_observed_unloads.load(std::memory_order_acquire);
    return g_unloads.load(std::memory_order_acquire) + observed->load(std::memory_order_acquire);
  }
  /// The lowest bit is always set, so that no generation equals that of an empty slot.
  static std::uint64_t Generation(std::uint64_t unloads) {
    return (unloads << 1 | 1) & Rule::kGenerationMask;
  }

  static Rule FindFurther(const Slot* slot, std::uint64_t return_address);
  static Table* MakeTable(std::size_t slots);
  static bool Insert(Table* table, std::uint64_t key, Rule rule);
  static std::size_t SlotsFor(const Table& table, std::uint64_t generation);
  static Table* Replace(Table* table, std::uint64_t generation);
  static void EndHalfRound();
  static bool Publish(Table* old_table, Table* table);

  static EmptyTable g_empty;
  static std::atomic<Table*> g_table;
  static std::atomic<std::uint64_t> g_unloads;
  static const std::atomic<std::uint64_t> g_no_unloads;
  static std::atomic<const std::atomic<std::uint64_t>*> g_observed_unloads;
  /// See EndHalfRound.
  static std::atomic<std::uint64_t> g_half_rounds;

  const Slot* slots_;
  std::uint64_t mask_;
  std::uint64_t generation_;
};

}  // namespace platform::cfi
