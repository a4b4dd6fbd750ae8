// SPDX-License-Identifier: Apache-2.0
// Calls the tracker's handler.
#include "host/carry_out.h"

#include <atomic>

#include "host/detach.h"
#include "host/form.h"
#include "host/print_error.h"
#include "host/reports.h"
#include "host/signal_actions.h"
#include "host/slots.h"
#include "host/state.h"
#include "protocol/kinds.h"

namespace host {
namespace {

std::atomic<bool> report_waits{false};

}  // namespace

bool MustWait(const Command& command) {
  const bool waits = (command.word & protocol::kReportBits) != 0 && ReportRuns();
  if (waits) report_waits.store(true);
  return waits;
}

CarriedOut CarryOutFirst() {
  CarriedOut done{0, false, TakeCommand()};
  int error = 0;
  if (done.taken.recipient == protocol::Recipient::kDetach) {
    error = Detach();
    done.detached = error == 0;
  } else {
    // Finds libraries that the C library has loaded for itself, and slots that were bound since the
    // last scan.
    if (CurrentForm() == Form::kAttached) ReplaceSlots();
    Deliver(done.taken.command);
    RememberCommand(done.taken.command);
  }
  report_waits.store(false);
  if (!done.detached) Acknowledge(done.taken, error);
  done.ticket = done.taken.ticket;
  if (const uint32_t count = TakeDropped(); count != 0) {
    PrintError("%u commands were dropped: they arrived faster than they are carried out", count);
  }
  return done;
}

bool ReportCommandWaits() {
  return report_waits.load();
}

void ForgetReportCommand() {
  report_waits.store(false);
}

}  // namespace host
