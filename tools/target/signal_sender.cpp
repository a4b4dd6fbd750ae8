// The sending side of the control protocol.
#include "tools/target/signal_sender.h"

#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "tools/base/control.h"
#include "tools/base/user_error.h"
#include "tools/target/site.h"

namespace memleak {
namespace {

// Offsets in the siginfo record, part of the protocol: a 64-bit word lies over sender pid and user
// id, the parameter over the value.
constexpr std::size_t kWordOffset = 16;
constexpr std::size_t kParameterOffset = 24;

}  // namespace

int ControlSignalFor(bool target_emulated, bool sender_emulated) {
  return kControlSignal + (target_emulated ? kEmulatedSignalShift : 0) -
         (sender_emulated ? kEmulatedSignalShift : 0);
}

void SendCommand(const ProcessInfo& process, std::uint64_t word, std::uint32_t parameter) {
  const int signal = ControlSignalFor(process.is_emulated, RunsEmulated());
  siginfo_t info;
  std::memset(&info, 0, sizeof(info));
  info.si_signo = signal;
  info.si_code = SI_QUEUE;
  std::memcpy(reinterpret_cast<char*>(&info) + kWordOffset, &word, sizeof(word));
  std::memcpy(reinterpret_cast<char*>(&info) + kParameterOffset, &parameter, sizeof(parameter));
  // Not sigqueue(): that one fills in the sender's pid and user id itself.
  if (syscall(SYS_rt_sigqueueinfo, process.pid, signal, &info) == 0) return;
  switch (errno) {
    case ESRCH:
      throw UserError("no such process: " + process.Label() + " has ended", "start it again");
    case EPERM:
      throw UserError("not permitted to signal process " + process.Label(), Advice().permission);
    case EAGAIN:
      throw UserError("process " + process.Label() + " has too many signals pending",
                      "wait until it takes them, or raise ulimit -i");
    default:
      throw UserError("cannot signal process " + process.Label() + ": " + std::strerror(errno),
                      "check that it still runs: memleak status " + std::to_string(process.pid));
  }
}

}  // namespace memleak
