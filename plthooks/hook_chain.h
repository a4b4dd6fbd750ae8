// SPDX-License-Identifier: Apache-2.0
// The list of functions of one hooked slot: the original function and its hooks.
//
// The registry writes it, one thread at a time, under its lock. Every call through the slot reads
// it, on any thread and in any context, without a lock. A call takes a snapshot, so hooks that are
// added or removed later do not affect it.
#pragma once

#include <atomic>
#include <cstdint>

namespace lumora::plthooks {

/// The original function and the hooks, oldest first, in an append-only array.
///
/// A removal only writes its number (1, 2, ...) into the element. A snapshot stores how many
/// removals there were before it, and so knows which elements were removed by then. A full array is
/// replaced by a copy without the removed elements. The old array is kept, since calls may still
/// read it: about 30 bytes for each function ever added.
class HookChain {
 private:
  struct Element {
    void* function;
    /// Number of the removal that removed it, from 1; 0 if it was not removed.
    std::atomic<std::uint32_t> removal;
  };
  struct Array {
    /// The array that this one replaced, or null.
    Array* outgrown;
    std::uint32_t capacity;
    /// Size in the lower 32 bits, number of removals in the upper 32: a snapshot reads both at
    /// once.
    std::atomic<std::uint64_t> state;

    Element* elements() { return reinterpret_cast<Element*>(this + 1); }
    const Element* elements() const { return reinterpret_cast<const Element*>(this + 1); }
  };

 public:
  /// The functions at one moment. A plain value, valid as long as the chain exists. Takes no lock
  /// and allocates nothing; any thread, any context.
  class Snapshot {
   public:
    Snapshot() = default;

    bool empty() const { return size_ == 0; }
    /// The number of elements, including removed ones.
    std::uint32_t size() const { return size_; }
    /// The function at `index` (below size()); null if it was removed.
    void* element(std::uint32_t index) const {
      const Element& found = array_->elements()[index];
      const std::uint32_t removal = found.removal.load(std::memory_order_relaxed);
      return removal == 0 || removal > removals_ ? found.function : nullptr;
    }
    /// The original function, which is never removed; null for an empty snapshot.
    void* original() const { return array_ != nullptr ? array_->elements()[0].function : nullptr; }
    /// The newest function. The snapshot must not be empty.
    void* newest() const {
      std::uint32_t index = size_ - 1;
      while (element(index) == nullptr) --index;
      return element(index);
    }
    /// The function before the first `hook`; null if `hook` is not in the list or is the original.
    void* before(const void* hook) const {
      void* previous = nullptr;
      for (std::uint32_t index = 0; index < size_; ++index) {
        void* function = element(index);
        if (function == nullptr) continue;
        if (function == hook) return previous;
        previous = function;
      }
      return nullptr;
    }

   private:
    friend class HookChain;
    Snapshot(const Array* array, std::uint64_t state)
        : array_(array),
          size_(static_cast<std::uint32_t>(state)),
          removals_(static_cast<std::uint32_t>(state >> 32)) {}

    const Array* array_ = nullptr;
    std::uint32_t size_ = 0;
    std::uint32_t removals_ = 0;
  };

  HookChain() = default;
  HookChain(const HookChain&) = delete;
  HookChain& operator=(const HookChain&) = delete;
  /// No snapshot may be in use.
  ~HookChain();

  /// Returns the current functions. Any thread, any context. Takes no lock, allocates nothing.
  Snapshot snapshot() const {
    const Array* array = current_.load(std::memory_order_acquire);
    if (array == nullptr) return {};
    return {array, array->state.load(std::memory_order_acquire)};
  }

  // Writers only: one thread at a time.

  /// Adds `function` (not null) as the newest. Throws std::bad_alloc, with nothing changed.
  void append(void* function);
  /// Removes the first hook equal to `function` (not null). Never removes the original. Returns
  /// false if there is none. Allocates nothing.
  bool remove(const void* function);
  /// The number of functions that were not removed.
  std::uint32_t length() const {
    const Snapshot all = snapshot();
    return all.size_ - all.removals_;
  }

 private:
  static void Append(Array& array, void* function);

  std::atomic<Array*> current_{nullptr};
};

}  // namespace lumora::plthooks
