// SPDX-License-Identifier: Apache-2.0
// The sending side of the control protocol.
#include "tools/target/signal_sender.h"

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

int ControlSignalFor(bool target_emulated, bool sender_emulated) {
  return protocol::control_signal + (target_emulated ? protocol::kEmulatedSignalShift : 0) -
         (sender_emulated ? protocol::kEmulatedSignalShift : 0);
}

void SendCommand(const ProcessInfo& process, std::uint64_t word, std::uint32_t parameter) {
  const int signal = ControlSignalFor(process.is_emulated, RunsEmulated());
  siginfo_t info = protocol::MakeRecord(signal, {word, parameter});
  if (syscall(SYS_rt_sigqueueinfo, process.pid, signal, &info) == 0) return;
  switch (errno) {
    case ESRCH:
      throw UserError("no such process: " + process.Label() + " has ended", "start it again");
    case EPERM:
      throw UserError("not permitted to signal process " + process.Label(), Advice().permission);
    case EAGAIN:
      throw UserError("process " + process.Label() + " has too many signals pending",
                      "wait until it handles them, or raise ulimit -i");
    default:
      throw UserError("cannot signal process " + process.Label() + ": " + std::strerror(errno),
                      "check whether it still runs: memleak status " + std::to_string(process.pid));
  }
}

}  // namespace memleak
