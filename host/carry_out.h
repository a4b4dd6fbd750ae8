// SPDX-License-Identifier: Apache-2.0
// Carries out the commands of the queue. For the control thread.
#pragma once

#include "host/command_queue.h"

namespace host {

/// The result of a command.
struct CarriedOut {
  uint32_t ticket;  ///< the command's ticket; 0 if it has none
  bool detached;    ///< the loader is detached, and the command is not acknowledged yet
  Taken taken;
};

/// Returns whether `command` must wait: it requests a report while another report is being written.
/// (The tracker would write both at the same time.)
bool MustWait(const Command& command);

/// Carries out the first command of the queue, which must not be empty. Acknowledges the command,
/// unless it has detached the loader: then the caller calls Acknowledge.
CarriedOut CarryOutFirst();

/// Returns whether MustWait has returned true since the latest command. Any thread.
bool ReportCommandWaits();
/// Makes ReportCommandWaits return false. For a forked child, on its only thread.
void ForgetReportCommand();

}  // namespace host
