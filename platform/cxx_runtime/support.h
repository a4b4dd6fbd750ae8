// SPDX-License-Identifier: Apache-2.0
// Shared by the replaced functions of the C++ runtime. Any thread, possibly without free memory.
#pragma once

#include <async_safe/log.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "protocol/protocol.h"

namespace platform {

/// Logs `reason` at fatal priority and aborts the process.
[[noreturn]] inline void Die(const char* reason) {
  async_safe_format_log(ANDROID_LOG_FATAL, protocol::kLogTag, "the tracker aborts the process: %s",
                        reason);
  std::abort();
}

/// 64 preallocated blocks of `kBytes` each, because the allocator may be the one that failed.
///
/// Lock-free; any thread. A forked child loses the blocks that other threads of its parent had
/// taken.
template <std::size_t kBytes>
class Pool {
 public:
  /// Returns a zeroed block, or null if all are taken.
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
  /// Returns `block` to the pool. Returns false if it does not belong to the pool.
  bool GiveBack(const void* block) {
    const auto offset =
        reinterpret_cast<std::uintptr_t>(block) - reinterpret_cast<std::uintptr_t>(&blocks_[0][0]);
    if (offset >= sizeof(blocks_)) return false;
    taken_.fetch_and(~(std::uint64_t{1} << (offset / kBytes)), std::memory_order_release);
    return true;
  }

 private:
  std::atomic<std::uint64_t> taken_{0};  // one bit per block
  alignas(16) unsigned char blocks_[64][kBytes] = {};
};

}  // namespace platform
