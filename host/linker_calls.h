// SPDX-License-Identifier: Apache-2.0
// The replacements of dlopen, dlsym and dlvsym. Only an attached loader uses them: they are not
// exported, so a preloaded loader does not replace these functions.
#pragma once

namespace host {

/// Registers the replacements with AddReplacedSlot. Call it after FindReplacedSlots. For an attach.
void AddLinkerCalls();

}  // namespace host
