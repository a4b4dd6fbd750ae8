// SPDX-License-Identifier: Apache-2.0
// Tests whether memory is readable without reading it.
//
// Used inside recorded allocations and hooked calls. Any thread. Async-signal-safe.
#pragma once

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <ctime>

namespace platform {

/// The kernel's smallest page. On a machine with larger pages a part of a page is readable if the
/// page is.
inline constexpr std::uint64_t kSmallestPage = 4096;

/// Returns whether the page that contains `address` is readable. Takes no lock, allocates nothing,
/// keeps errno. One system call.
///
/// FUTEX_WAIT makes the kernel read a word and compare it with a number. With a timeout of zero it
/// never blocks. Every mutex needs this call, so sandboxes allow it. Under an emulator it refers to
/// the emulated program's memory.
inline bool CanRead(std::uint64_t address) {
  constexpr std::uint32_t kUnlikely = 0x5BD1E995;
  const timespec no_time{};
  const int saved_errno = errno;
  const long result = syscall(SYS_futex, address & ~std::uint64_t{3}, FUTEX_WAIT_PRIVATE, kUnlikely,
                              &no_time, nullptr, 0);
  const bool readable = result == 0 || errno == EAGAIN || errno == ETIMEDOUT || errno == EINTR;
  errno = saved_errno;
  return readable;
}

/// Returns whether all of the `bytes` bytes (more than 0) at `address` are readable. One system
/// call for each page.
inline bool CanRead(std::uint64_t address, std::uint64_t bytes) {
  const std::uint64_t last = address + bytes - 1;
  if (last < address) return false;
  for (std::uint64_t page = address & ~(kSmallestPage - 1); page <= last; page += kSmallestPage) {
    if (!CanRead(page)) return false;
  }
  return true;
}

}  // namespace platform
