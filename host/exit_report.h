// SPDX-License-Identifier: Apache-2.0
// The end of the process: waits for reports, and writes one if the environment asks for it.
#pragma once

#include "host/control_thread.h"

namespace host {

/// Sets the command for the end of the process; the word 0 means none. Registers the handlers of
/// exit and quick_exit, the first time. For the loader's constructor and for an attach. `finalize`
/// ends the tracker. Returns 0 or an errno value.
int PrepareExit(const Command& command, void (*finalize)());

/// As the exit handlers, for a process that ends without them, at most once in a process. May be
/// called in a signal handler that has interrupted the allocator: gives up within some seconds
/// then. Does nothing in a child of vfork.
void EndAbruptly();

}  // namespace host
