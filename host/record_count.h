// SPDX-License-Identifier: Apache-2.0
// The number of records, which the controller asks for through the state.
#pragma once

namespace host {

/// Whether the controller waits for the number. Any thread, safe in signal handlers.
bool CountWaits();

/// Makes the tracker store the number in the state, and answers. On the control thread.
void CountRecords();

}  // namespace host
