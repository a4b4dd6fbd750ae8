// SPDX-License-Identifier: Apache-2.0
// The loader's handler of the control signal.
//
// A command may arrive at any instruction of the program, even inside its allocator. So the handler
// only queues the command and requests the control thread, which calls the tracker's handler. The
// loader's handler stays installed: calls of sigaction do not replace it (signal_actions.h).
#pragma once

namespace host {

/// Installs the loader's handler. Returns 0 or an errno value. For the loader's constructor and for
/// an attach.
int InstallControlSignal();

}  // namespace host
