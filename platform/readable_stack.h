// How far up the running stack may be read.
//
// Used by every capture of a stack, on every allocating thread and in signal handlers.
#pragma once

#include <atomic>
#include <cstdint>

namespace platform {

/// Whether any thread remembers a stack that is not its own. Never reset.
inline std::atomic<bool> other_stack_remembered{false};

/// Creates what the captures of all threads share. Later calls do nothing. Called once at start-up,
/// by one thread. Until then, and if it fails, captures ask the kernel more often.
void PrepareReadableStack();

/// The readable part of a stack, from one address upward. An object serves one capture, on the
/// stack and the thread on which it was made.
///
/// Linux: ends where the mapping that holds the stack ends. Compilers keep any value in the frame
/// pointer register there, so a walk may be led anywhere. Android: ends 8 MiB above, whatever is
/// mapped. All code keeps frame pointers there, and the walk's own limit is far below.
class ReadableStack {
 public:
  /// `begin` is an address on the running stack, so the page that holds it is readable.
  /// Async-signal-safe, takes no lock, allocates nothing.
  explicit ReadableStack(std::uint64_t begin)
      : begin_(begin), end_((begin | (kPageBytes - 1)) + 1) {
    if (other_stack_remembered.load(std::memory_order_relaxed)) RecallOtherStack();
  }

  /// Whether the `bytes` bytes at `address` belong to it. Asks the kernel only about pages that it
  /// does not know yet. Async-signal-safe, takes no lock, allocates nothing, keeps errno.
  bool Holds(std::uint64_t address, std::uint64_t bytes) {
    const bool known = address >= begin_ && address < end_ && end_ - address >= bytes;
    return known || Reaches(address, bytes);
  }
  /// The end of the part that is known to be readable so far.
  std::uint64_t KnownEnd() const { return end_; }

 private:
  /// The smallest page that the kernel has. A part of a larger page is readable if all of it is.
  static constexpr std::uint64_t kPageBytes = 4096;

  /// Uses what this thread remembers of this stack, and forgets what it remembers of another.
  void RecallOtherStack();
  /// Holds for what lies outside of the part that is known so far; learns more of it.
  bool Reaches(std::uint64_t address, std::uint64_t bytes);

  std::uint64_t begin_;
  std::uint64_t end_;
};

}  // namespace platform
