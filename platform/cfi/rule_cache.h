// SPDX-License-Identifier: Apache-2.0
// The rules of return addresses that were met before, for the whole process.
//
// Captures read it on every thread and in signal handlers, without a lock and without writing. A
// miss adds to it. Memory comes from mmap and is not given back: a reader may be inside. Nothing is
// done at a fork: the child inherits the table.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "arch/unwind.h"
#include "platform/cfi/rule.h"

namespace platform::cfi {

/// The cache as one capture sees it: the table that is in use at its start, and the generation. A
/// rule of another generation was made before an object was unloaded, and may be that object's.
class RuleCache {
 public:
  RuleCache() {
    const Table* table = g_table.load(std::memory_order_acquire);
    slots_ = table->Slots();
    mask_ = table->mask;
    generation_ = Generation(Unloads());
  }

  std::uint64_t generation() const { return generation_; }

  /// The rule for `return_address`; when it is not known, a rule with a tag of no generation or of
  /// an earlier one.
  __attribute__((always_inline)) Rule Find(std::uint64_t return_address) const {
    const std::uint64_t place = PlaceOf(mask_, return_address);
    // A separate address for the key, so that the load of the rule, on the critical path, does not
    // wait for it.
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

  /// Adds a rule of this view's generation, for later views. Without memory it does nothing.
  void Add(std::uint64_t return_address, Rule rule) const;

  /// Whether rules of this view may be used still.
  bool IsCurrent() const { return Generation(Unloads()) == generation_; }

  /// Makes all rules invalid: objects have changed. Any thread, any context.
  static void EndGeneration() { g_unloads.fetch_add(1, std::memory_order_acq_rel); }

  /// Makes all rules invalid whenever `unloads` grows, too. It is never destroyed. At start-up.
  static void Observe(const std::atomic<std::uint64_t>* unloads) {
    g_observed_unloads.store(unloads, std::memory_order_release);
  }

 private:
  /// A slot never changes its key. Its rule is overwritten when its generation is over.
  struct Slot {
    std::atomic<std::uint64_t> rule;
    std::atomic<std::uint64_t> key;
  };
  static constexpr std::size_t kSlotWords = 2;
  static_assert(sizeof(Slot) == kSlotWords * sizeof(std::uint64_t));

  /// The number of slots that a key may be in. A table has as many extra slots at its end.
  static constexpr std::size_t kProbes = 8;

  /// The head of a table. `slots` slots follow, and kProbes more.
  struct alignas(64) Table {
    std::uint64_t mask;
    std::size_t slots;
    std::atomic<std::size_t> used;
    /// The one that this one replaced.
    Table* previous;

    Slot* Slots() { return reinterpret_cast<Slot*>(this + 1); }
    const Slot* Slots() const { return reinterpret_cast<const Slot*>(this + 1); }
    Rule RuleAt(std::size_t slot) const {
      return Rule(Slots()[slot].rule.load(std::memory_order_relaxed));
    }
    std::size_t Bytes() const { return sizeof(Table) + (slots + kProbes) * sizeof(Slot); }
  };

  /// The table before the first rule. It has no room.
  struct EmptyTable {
    Table head{};
    Slot slots[kProbes]{};
  };

  /// The first slot of `key`, counted in words. Uses the low bits unchanged, so that call sites of
  /// one function share few pages.
  static std::uint64_t PlaceOf(std::uint64_t mask, std::uint64_t key) {
    return (key >> (arch::kCallSiteShift - 1)) & mask;
  }

  static std::uint64_t Unloads() {
    const auto* observed = g_observed_unloads.load(std::memory_order_acquire);
    return g_unloads.load(std::memory_order_acquire) + observed->load(std::memory_order_acquire);
  }
  /// The lowest bit tells a generation from a slot without a rule.
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
  static const std::atomic<std::uint64_t> g_nobody_counts;
  static std::atomic<const std::atomic<std::uint64_t>*> g_observed_unloads;
  /// See EndHalfRound.
  static std::atomic<std::uint64_t> g_half_rounds;

  const Slot* slots_;
  std::uint64_t mask_;
  std::uint64_t generation_;
};

}  // namespace platform::cfi
