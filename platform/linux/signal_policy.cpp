// The control signal stays with its thread. Any thread, in signal context.
#include "platform/signal_policy.h"

#include "protocol/protocol.h"

namespace platform {

void KeepBlocked(const sigset_t& interrupted, sigset_t* mask) {
  if (sigismember(&interrupted, protocol::control_signal) == 1) {
    sigaddset(mask, protocol::control_signal);
  }
}

}  // namespace platform
