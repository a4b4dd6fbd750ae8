// SPDX-License-Identifier: Apache-2.0
// Reads the system call from the interrupted registers.
#include "host/waiting_thread.h"

#include <errno.h>
#include <linux/futex.h>
#include <stdint.h>
#include <string.h>
#include <sys/syscall.h>
#include <ucontext.h>

#include "platform/readable.h"

namespace host {
namespace {

/// An interrupted system call: its number (-1 if unknown) and its second argument.
struct Call {
  long number;
  uint64_t second;
};

#if defined(__x86_64__)

/// If the kernel will repeat the instruction, rax contains the number. If it returns EINTR, the
/// number is in the preceding instruction: mov $number,%eax; syscall.
Call InterruptedCall(const ucontext_t& context) {
  const greg_t* registers = context.uc_mcontext.gregs;
  const auto* next = reinterpret_cast<const unsigned char*>(registers[REG_RIP]);
  const auto second = static_cast<uint64_t>(registers[REG_RSI]);
  constexpr unsigned char kSyscall[] = {0x0f, 0x05};
  if (!platform::CanRead(static_cast<uint64_t>(registers[REG_RIP]) - 7, 7 + sizeof kSyscall)) {
    return {-1, 0};
  }
  if (memcmp(next, kSyscall, sizeof kSyscall) == 0) {
    return {static_cast<long>(registers[REG_RAX]), second};
  }
  constexpr unsigned char kMoveToEax = 0xb8;
  if (registers[REG_RAX] != -EINTR || memcmp(next - 2, kSyscall, sizeof kSyscall) != 0 ||
      next[-7] != kMoveToEax) {
    return {-1, 0};
  }
  int number;
  memcpy(&number, next - 6, sizeof number);
  return {number, second};
}

#elif defined(__aarch64__)

/// x8 contains the number, whether the kernel repeats the instruction or returns EINTR.
Call InterruptedCall(const ucontext_t& context) {
  const mcontext_t& registers = context.uc_mcontext;
  const auto* next = reinterpret_cast<const uint32_t*>(registers.pc);
  constexpr uint32_t kSvc = 0xd4000001;
  if (!platform::CanRead(registers.pc - 4, 8)) return {-1, 0};
  const bool again = *next == kSvc;
  const bool interrupted =
      next[-1] == kSvc && static_cast<int64_t>(registers.regs[0]) == -int64_t{EINTR};
  if (!again && !interrupted) return {-1, 0};
  return {static_cast<long>(registers.regs[8]), registers.regs[1]};
}

#endif

}  // namespace

bool WasWaitingForWork(const void* context) {
  const Call call = InterruptedCall(*static_cast<const ucontext_t*>(context));
  switch (call.number) {
    case SYS_accept:
    case SYS_accept4:
    case SYS_clock_nanosleep:
    case SYS_epoll_pwait:
    case SYS_ppoll:
    case SYS_pselect6:
    case SYS_read:
    case SYS_recvfrom:
    case SYS_recvmsg:
    case SYS_rt_sigsuspend:
    case SYS_rt_sigtimedwait:
    case SYS_wait4:
    case SYS_waitid:
#if defined(__x86_64__)
    case SYS_epoll_wait:
    case SYS_pause:
    case SYS_poll:
    case SYS_select:
#endif
      return true;
    case SYS_futex:
      // Condition variables, semaphores and joins use FUTEX_WAIT_BITSET. Locks use FUTEX_WAIT.
      return (call.second & static_cast<uint64_t>(FUTEX_CMD_MASK)) == FUTEX_WAIT_BITSET;
    default:
      return false;
  }
}

}  // namespace host
