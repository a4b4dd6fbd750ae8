// Marks that a thread sets for itself, in thread-local variables.
//
// Read and written several times by every recorded allocation: a thread key would cost a call each
// time. The loader opens the tracker before the program starts, while the C library has room for
// such variables in the thread itself, so that no access allocates.
#pragma once

#include <atomic>

/// A mark that every thread sets for itself alone, null at first.
///
/// Get and Set may run on any thread and in any context, and allocate nothing. Before Create and
/// after Delete every thread counts as marked and nothing is written.
class ThreadMark {
 public:
  /// The usual mark: the thread is inside the tracker.
  static inline void* const kInside = reinterpret_cast<void*>(1);

  /// `number`: a different one for each mark of the process, below kMarks.
  explicit constexpr ThreadMark(int number) : number_(number) {}

  /// The calling thread's mark or null; kInside while there is none.
  void* Get() const {
    const int slot = slot_.load(std::memory_order_relaxed);
    return slot >= 0 ? values_[slot] : kInside;
  }
  /// Sets the calling thread's mark; null removes it.
  void Set(void* mark) const {
    // The fences keep the order that a signal handler on this thread sees.
    std::atomic_signal_fence(std::memory_order_seq_cst);
    const int slot = slot_.load(std::memory_order_relaxed);
    if (slot >= 0) values_[slot] = mark;
    std::atomic_signal_fence(std::memory_order_seq_cst);
  }

  /// Makes the mark, null on the calling thread. Returns 0 or an errno value. Only from
  /// track_initialize.
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
  /// number_ while there is a mark, else -1.
  std::atomic<int> slot_{-1};
};
