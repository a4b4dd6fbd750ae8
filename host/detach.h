// SPDX-License-Identifier: Apache-2.0
// The end of an attach.
#pragma once

namespace host {

/// Carries out Recipient::kDetach: recording is off, the records are dropped, the program's calls
/// and signal action are restored. The library stays mapped, and calls that are inside it continue.
/// Returns 0 or an errno value. On the control thread, which ends then.
int Detach();

}  // namespace host
