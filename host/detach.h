// SPDX-License-Identifier: Apache-2.0
// The end of an attach.
#pragma once

namespace host {

/// Carries out Recipient::kDetach: switches recording off, drops the records, and restores the
/// slots and the program's action of the control signal. The loader stays mapped, and calls inside
/// its functions continue. Returns 0, or EPERM if the loader is not attached. Runs on the control
/// thread, which the caller then ends.
int Detach();

}  // namespace host
