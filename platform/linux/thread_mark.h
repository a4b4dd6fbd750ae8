// SPDX-License-Identifier: Apache-2.0
// Per-thread marks, as thread-local variables.
//
// Every recorded allocation reads and sets them several times, and a thread key would cost a
// function call each time. The loader opens the tracker before the program starts, while the C
// library still has room for such variables in its static TLS block, so no access allocates.
#pragma once

#include <atomic>

/// A pointer per thread, initially null. Only the thread itself reads and sets it.
///
/// Get and Set: any thread, any context; they allocate nothing. Before Create and after Delete
/// every thread counts as marked and Set does nothing.
class ThreadMark {
 public:
  /// The usual mark: the thread is inside the tracker.
  static inline void* const kInside = reinterpret_cast<void*>(1);

  /// `number` identifies the mark in the process: 0 to kMarks - 1.
  explicit constexpr ThreadMark(int number) : number_(number) {}

  /// Returns the calling thread's mark or null. Returns kInside before Create and after Delete.
  void* Get() const {
    const int slot = slot_.load(std::memory_order_relaxed);
    return slot >= 0 ? values_[slot] : kInside;
  }
  /// Sets the calling thread's mark; null removes it.
  void Set(void* mark) const {
    // The fences keep the order of writes that a signal handler on this thread sees.
    std::atomic_signal_fence(std::memory_order_seq_cst);
    const int slot = slot_.load(std::memory_order_relaxed);
    if (slot >= 0) values_[slot] = mark;
    std::atomic_signal_fence(std::memory_order_seq_cst);
  }

  /// Creates the mark, null on the calling thread. Returns 0. Only from track_initialize.
  int Create() {
    values_[number_] = nullptr;
    slot_.store(number_, std::memory_order_relaxed);
    return 0;
  }
  /// Deletes the mark if there is one. Only from track_initialize and track_finalize.
  void Delete() { slot_.store(-1, std::memory_order_relaxed); }

 private:
  static constexpr int kMarks = 3;

  static inline __thread void* values_[kMarks] __attribute__((tls_model("initial-exec"))) = {};

  const int number_;
  /// number_ while there is a mark, otherwise -1.
  std::atomic<int> slot_{-1};
};
