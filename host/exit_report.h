// SPDX-License-Identifier: Apache-2.0
// The end of the process: waits for reports, and writes one if the environment asks for it.
#pragma once

#include "host/control_thread.h"

namespace host {

/// Sets the exit command; the word 0 means none. `finalize` ends the tracker. The first call
/// registers the handlers of exit and quick_exit. For the loader's constructor and for an attach.
/// Returns 0, or ENOMEM if a handler cannot be registered.
int PrepareExit(const Command& command, void (*finalize)());

/// Writes the report at exit if the process ends without exit handlers. At most once in a process.
/// May be called in a signal handler that has interrupted the allocator: then gives up after some
/// seconds. Does nothing in a child of vfork. Any thread.
void EndAbruptly();

}  // namespace host
