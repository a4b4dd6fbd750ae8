// SPDX-License-Identifier: Apache-2.0
// Undoes what an attach has changed. The tracker stays initialized, because threads may be inside
// its functions.
#include "host/detach.h"

#include <errno.h>

#include "host/allocator_table.h"
#include "host/form.h"
#include "host/next_allocator.h"
#include "host/signal_actions.h"
#include "host/slots.h"
#include "host/state.h"

namespace host {

int Detach() {
  if (CurrentForm() != Form::kAttached) return EPERM;
  if (void (*const switch_off)() = SwitchOffFunction()) switch_off();
  UseAllocator(NextAllocator());
  RestoreSlots();
  UninstallHandler();
  SetForm(Form::kDetached);
  return 0;
}

}  // namespace host
