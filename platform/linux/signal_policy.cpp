// The control signal stays with its thread. Any thread, in signal context.
#include "platform/signal_policy.h"

namespace platform {

namespace {

/// The real-time signal that carries commands to the tracker.
constexpr int kControlSignal = 44;

}  // namespace

void KeepBlocked(const sigset_t& interrupted, sigset_t* mask) {
  if (sigismember(&interrupted, kControlSignal) == 1) sigaddset(mask, kControlSignal);
}

}  // namespace platform
