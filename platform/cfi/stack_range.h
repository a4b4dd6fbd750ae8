// The stack that a walk is on, as far as it can be read.
//
// Any thread, any context.
#pragma once

#include <cstdint>

#include "platform/readable_stack.h"

namespace platform::cfi {

/// The stack from an address on it upward. An object serves one walk.
class StackRange {
 public:
  /// `begin` is an address on a stack of the calling thread, whose page can be read.
  explicit StackRange(std::uint64_t begin)
      : begin_(begin), end_((begin | (kPageBytes - 1)) + 1), readable_(begin) {}

  /// As far as it is known. Holds may learn more.
  std::uint64_t end() const { return end_; }

  /// Whether all of `bytes` bytes (more than 0) at `address` are stack that can be read. Keeps errno.
  bool Holds(std::uint64_t address, std::uint64_t bytes) {
    const bool known = address >= begin_ && address < end_ && end_ - address >= bytes;
    return known || Reaches(address, bytes);
  }

  /// Takes a word from the stack; false, and `value` as it was, where there is none.
  __attribute__((no_sanitize("address", "thread", "undefined"))) bool Read(std::uint64_t address,
                                                                           std::uint64_t* value) {
    if (!Holds(address, sizeof(*value))) return false;
    *value = *reinterpret_cast<const std::uint64_t*>(address);
    return true;
  }

 private:
  static constexpr std::uint64_t kPageBytes = 4096;  // the smallest there is

  /// Holds for what lies outside of the part that is known so far.
  bool Reaches(std::uint64_t address, std::uint64_t bytes);

  std::uint64_t begin_;
  std::uint64_t end_;
  ReadableStack readable_;
};

}  // namespace platform::cfi
