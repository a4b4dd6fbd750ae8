// Which signals a signal handler must not open.
//
// Called by the signal multiplexer in signal context, on any thread.
#pragma once

#include <signal.h>

namespace platform {

/// Adds to `mask`, with which a handler is about to run, what stays blocked because the interrupted
/// code had it blocked: `interrupted` is that code's mask. Async-signal-safe.
///
/// Android: nothing; the control signal comes to whichever thread the kernel picks. Linux: the
/// control signal. It is one thread's alone there, and a command that is carried out inside a
/// handler, on a thread that may hold the allocator's lock, would wait for ever.
void KeepBlocked(const sigset_t& interrupted, sigset_t* mask);

}  // namespace platform
