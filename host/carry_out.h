// SPDX-License-Identifier: Apache-2.0
// Carries out the commands of the queue. For the control thread.
#pragma once

#include "host/command_queue.h"

namespace host {

/// What has been carried out.
struct CarriedOut {
  uint32_t ticket;  ///< of the command; 0: it has none
  bool detached;    ///< the loader is detached now, and nobody has told the controller yet
  Taken taken;
};

/// Whether a command asks for a report while another report is being written. The tracker would
/// start a thread for each at once.
bool MustWait(const Command& command);

/// Carries out the first command of the queue, which must not be empty, and tells the controller,
/// unless the loader is detached now.
CarriedOut CarryOutFirst();

/// Whether MustWait has returned true since the latest command. Any thread.
bool ReportCommandWaits();
/// For a forked child, on its only thread.
void ForgetReportCommand();

}  // namespace host
