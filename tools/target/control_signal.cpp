// SPDX-License-Identifier: Apache-2.0
#include "tools/target/control_signal.h"

#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "protocol/protocol.h"
#include "tools/base/user_error.h"
#include "tools/target/site.h"

namespace memleak {
namespace {

// The number that this process gives the signal. An emulator adds kEmulatedSignalShift to the
// numbers of its guest, which may be the target, this process or both.
int SignalFor(const ProcessInfo& process) {
  return protocol::control_signal + (process.is_emulated ? protocol::kEmulatedSignalShift : 0) -
         (RunsEmulated() ? protocol::kEmulatedSignalShift : 0);
}

UserError CannotSignal(const ProcessInfo& process, int error) {
  switch (error) {
    case ESRCH:
      return {"no such process: " + process.Label() + " has ended", "start it again"};
    case EPERM:
      return {"not permitted to signal process " + process.Label(), Advice().permission};
    case EAGAIN:
      return {"process " + process.Label() + " has too many signals pending",
              "wait until it handles them, or raise ulimit -i"};
    default:
      return {"cannot signal process " + process.Label() + ": " + std::strerror(error),
              "check whether it still runs: memleak status " + std::to_string(process.pid)};
  }
}

}  // namespace

void RingBell(const ProcessInfo& process) {
  if (kill(process.pid, SignalFor(process)) != 0) throw CannotSignal(process, errno);
}

void QueueCommand(const ProcessInfo& process, std::uint64_t word, std::uint32_t parameter) {
  const int signal = SignalFor(process);
  siginfo_t info = protocol::MakeRecord(signal, {word, parameter});
  if (syscall(SYS_rt_sigqueueinfo, process.pid, signal, &info) != 0) {
    throw CannotSignal(process, errno);
  }
}

}  // namespace memleak
