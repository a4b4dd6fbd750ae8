// Whether memory can be read, without reading it.
//
// Used inside recorded allocations and hooked calls, on any thread and in signal handlers.
#pragma once

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <ctime>

namespace platform {

/// Whether the page that holds `address` can be read. Takes no lock, allocates nothing, keeps
/// errno.
///
/// The kernel reads a word there and compares it with a number. With zero time to wait it never
/// sleeps, even if they are equal. Programs need this call for any mutex, so sandboxes allow it;
/// under an emulator the page is the emulated program's.
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

}  // namespace platform
