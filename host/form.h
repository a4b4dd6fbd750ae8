// SPDX-License-Identifier: Apache-2.0
// How the loader came into the process, and whether it takes part in it.
#pragma once

#include "protocol/state.h"

namespace host {

using protocol::Form;

/// The form; kDetached also between the load of a loader that was not preloaded and its attach, and
/// while it attaches. Any thread, safe in signal handlers.
Form CurrentForm();

/// Also publishes it. For the constructor, and for attach and detach.
void SetForm(Form form);

inline bool IsActive() {
  return CurrentForm() != Form::kDetached;
}

}  // namespace host
