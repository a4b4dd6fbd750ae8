// What the tracker's own parts of the C++ run-time library share. Any thread, with no memory left
// if need be.
#pragma once

#include <async_safe/log.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "protocol/protocol.h"

namespace platform {

/// Ends the process with a line in the log that says why.
[[noreturn]] inline void Die(const char* reason) {
  async_safe_format_log(ANDROID_LOG_FATAL, protocol::kLogTag, "the tracker ends the process: %s",
                        reason);
  std::abort();
}

/// 64 blocks of `kBytes`, zeroed when taken: memory for exceptions that does not come from the
/// allocator that may just have failed. Lock-free. Blocks that other threads of a parent process
/// hold while it forks are lost to the child.
template <std::size_t kBytes>
class Pool {
 public:
  /// Null when all are taken.
  void* Take() {
    std::uint64_t taken = taken_.load(std::memory_order_relaxed);
    while (taken != ~std::uint64_t{0}) {
      const int index = __builtin_ctzll(~taken);
      if (taken_.compare_exchange_weak(taken, taken | (taken + 1), std::memory_order_acquire,
                                       std::memory_order_relaxed)) {
        return std::memset(blocks_[index], 0, kBytes);
      }
    }
    return nullptr;
  }
  /// False when `block` is none of the pool's.
  bool GiveBack(const void* block) {
    const auto offset =
        reinterpret_cast<std::uintptr_t>(block) - reinterpret_cast<std::uintptr_t>(&blocks_[0][0]);
    if (offset >= sizeof(blocks_)) return false;
    taken_.fetch_and(~(std::uint64_t{1} << (offset / kBytes)), std::memory_order_release);
    return true;
  }

 private:
  std::atomic<std::uint64_t> taken_{0};  // a bit for each block
  alignas(16) unsigned char blocks_[64][kBytes] = {};
};

}  // namespace platform
