// SPDX-License-Identifier: Apache-2.0
// Whether a signal has interrupted a thread in a system call in which programs wait for work.
#pragma once

namespace host {

/// Returns whether a signal has interrupted a wait in a system call that neither allocators nor
/// locks of the C library use: then the handler may start a thread. `context` is the third argument
/// of the signal handler. Returns false if this is not certain. Safe in signal handlers.
bool WasWaitingForWork(const void* context);

}  // namespace host
