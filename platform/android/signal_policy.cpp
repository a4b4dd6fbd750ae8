// Every signal is every thread's on a device. Any thread, in signal context.
#include "platform/signal_policy.h"

namespace platform {

void KeepBlocked(const sigset_t& /*interrupted*/, sigset_t* /*mask*/) {}

}  // namespace platform
