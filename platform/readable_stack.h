// SPDX-License-Identifier: Apache-2.0
// The readable part of the running stack.
//
// Used by every capture of a stack, on every allocating thread and in signal handlers.
#pragma once

#include <atomic>
#include <cstdint>

#include "platform/readable.h"

namespace platform {

/// Whether any thread has cached a stack that is not its own. Never reset.
inline std::atomic<bool> other_stack_remembered{false};

/// Creates the caches of all threads. Called once, at start-up. Without it captures make more
/// system calls. Not in a platform tree, which has no caches.
void PrepareReadableStack();

/// The readable part of a stack, from one address upward. An object serves one capture, on the
/// thread and the stack on which it was made.
///
/// The part ends with the mapping that contains the stack, because frame pointers and call-frame
/// information may point anywhere. In a platform tree it ends 8 MiB above the start, mapped or not:
/// all code has frame pointers there.
class ReadableStack {
 public:
  /// `begin` is an address on the running stack, so its page is readable. Async-signal-safe; takes
  /// no lock, allocates nothing.
  explicit ReadableStack(std::uint64_t begin)
      : begin_(begin), end_((begin | (kSmallestPage - 1)) + 1) {
    if (other_stack_remembered.load(std::memory_order_relaxed)) LoadOtherStack();
  }

  /// Returns whether the `bytes` bytes at `address` are readable stack. Makes a system call for
  /// each page that is not known yet. Async-signal-safe; takes no lock, allocates nothing, keeps
  /// errno.
  bool Holds(std::uint64_t address, std::uint64_t bytes) {
    const bool known = address >= begin_ && address < end_ && end_ - address >= bytes;
    return known || Reaches(address, bytes);
  }
  /// Reads the word at `address` into `value`. Returns false and does not change `value` if Holds
  /// returns false for the word.
  __attribute__((no_sanitize("address", "thread", "undefined"))) bool Read(std::uint64_t address,
                                                                           std::uint64_t* value) {
    if (!Holds(address, sizeof(*value))) return false;
    *value = *reinterpret_cast<const std::uint64_t*>(address);
    return true;
  }
  /// Returns the end of the part that is known to be readable.
  std::uint64_t KnownEnd() const { return end_; }

 private:
  /// Uses the thread's cache if it contains this stack, otherwise clears it.
  void LoadOtherStack();
  /// Holds for addresses beyond the known part, which it extends.
  bool Reaches(std::uint64_t address, std::uint64_t bytes);

  std::uint64_t begin_;
  std::uint64_t end_;
};

}  // namespace platform
