// SPDX-License-Identifier: Apache-2.0
// How the loader was loaded into the process, and whether it is active.
#pragma once

#include "protocol/state.h"

namespace host {

using protocol::Form;

/// Returns the form. A loader that was not preloaded has kDetached until its attach is complete.
/// Any thread, safe in signal handlers.
Form CurrentForm();

/// Sets the form, also in the state. For the loader's constructor, an attach and a detach.
void SetForm(Form form);

/// Returns whether the loader is preloaded or attached. Any thread, safe in signal handlers.
inline bool IsActive() {
  return CurrentForm() != Form::kDetached;
}

}  // namespace host
