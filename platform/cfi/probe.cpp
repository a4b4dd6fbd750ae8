// Asks the kernel whether memory can be read.
#include "platform/cfi/probe.h"

#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

namespace platform::cfi {
namespace {

constexpr std::uint64_t kPageBytes = 4096;  // the smallest there is
constexpr std::size_t kKernelSetBytes = 8;  // of the kernel's sigset_t

/// The kernel reads the signal set before it looks at the first argument, which is none that it
/// knows: nothing changes.
bool ReadsSetAt(std::uint64_t address) {
  constexpr int kNoSuchRequest = -1;
  return syscall(SYS_rt_sigprocmask, kNoSuchRequest, address, nullptr, kKernelSetBytes) == 0 ||
         errno != EFAULT;
}

}  // namespace

bool IsReadable(std::uint64_t address, std::size_t bytes) {
  const std::uint64_t last = address + bytes - 1;
  if (last < address) return false;
  const int saved_errno = errno;
  bool readable = true;
  for (std::uint64_t page = address & ~(kPageBytes - 1); readable && page <= last;
       page += kPageBytes) {
    readable = page != 0 && ReadsSetAt(page);
  }
  errno = saved_errno;
  return readable;
}

}  // namespace platform::cfi
