// SPDX-License-Identifier: Apache-2.0
// Whether a signal has interrupted a thread in a system call in which programs wait for work.
#pragma once

namespace host {

/// Returns whether the thread that `context` (of a signal handler) describes was waiting in a
/// system call that no allocator and no lock of the C library uses. Then a thread may be started in
/// the handler. False if it is not certain. Safe in signal handlers.
bool WasWaitingForWork(const void* context);

}  // namespace host
