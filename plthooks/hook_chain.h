// The functions of one hooked slot, as they change under the calls that run them.
//
// Written by the registry, one thread at a time under its lock; read by every call through the
// slot, on any thread and in any context, without a lock. A call takes a snapshot and keeps it:
// hooks that are added or removed later do not concern it.
#pragma once

#include <atomic>
#include <cstdint>

namespace lumora::plthooks {

/// The original function and the hooks, oldest first, in an array to which functions are appended.
/// Removing one writes into its element when that was: removal number n is seen by snapshots that
/// were taken after n removals or more. A full array is replaced by one with what is left in it,
/// and kept, since calls may still run by it: some 30 bytes for each function ever added.
class HookChain {
 private:
  struct Element {
    void* function;
    /// The number of the removal that took it, from 1; 0 while it is in.
    std::atomic<std::uint32_t> removal;
  };
  struct Array {
    /// Never changed any more.
    Array* outgrown;
    std::uint32_t capacity;
    /// Size in the lower half, removals in the upper one: a snapshot takes both at once.
    std::atomic<std::uint64_t> state;

    Element* elements() { return reinterpret_cast<Element*>(this + 1); }
    const Element* elements() const { return reinterpret_cast<const Element*>(this + 1); }
  };

 public:
  /// The functions at one moment, for as long as the chain lives. A plain value. Reading it takes
  /// no lock and allocates nothing.
  class Snapshot {
   public:
    Snapshot() = default;

    bool empty() const { return size_ == 0; }
    /// The number of elements, removed ones included, and the function of one: null if removed.
    std::uint32_t size() const { return size_; }
    void* element(std::uint32_t index) const {
      const Element& found = array_->elements()[index];
      const std::uint32_t removal = found.removal.load(std::memory_order_relaxed);
      return removal == 0 || removal > removals_ ? found.function : nullptr;
    }
    /// The oldest function, which is never removed; null of an empty snapshot.
    void* original() const { return array_ != nullptr ? array_->elements()[0].function : nullptr; }
    /// The last function; only of a snapshot that is not empty.
    void* newest() const {
      std::uint32_t index = size_ - 1;
      while (element(index) == nullptr) --index;
      return element(index);
    }
    /// The function before the first `hook`; null when there is no such hook, or none before it.
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
  /// Nobody may hold a snapshot any more.
  ~HookChain();

  /// Any thread, any context. Takes no lock, allocates nothing.
  Snapshot snapshot() const {
    const Array* array = current_.load(std::memory_order_acquire);
    if (array == nullptr) return {};
    return {array, array->state.load(std::memory_order_acquire)};
  }

  /// Adds `function` (not null) as the newest. Throws std::bad_alloc, with nothing changed. Only
  /// writers may call this function and those below.
  void append(void* function);
  /// Removes the first `function` (not null), which is not the original. False when there is none.
  /// Allocates nothing.
  bool remove(const void* function);
  /// The number of functions that are in.
  std::uint32_t length() const {
    const Snapshot all = snapshot();
    return all.size_ - all.removals_;
  }

 private:
  static void Append(Array& array, void* function);

  std::atomic<Array*> current_{nullptr};
};

}  // namespace lumora::plthooks
