// SPDX-License-Identifier: Apache-2.0
// The number of live records, which the controller requests through the state.
#pragma once

namespace host {

/// Returns whether the controller waits for the number. Any thread, safe in signal handlers.
bool CountWaits();

/// Makes the tracker store the number in the state, and wakes the controller. Control thread only.
void CountRecords();

}  // namespace host
