// SPDX-License-Identifier: Apache-2.0
// The calls of the dynamic linker that a loader replaces if it was not preloaded. It does not
// export these functions: a preloaded loader leaves them alone.
#pragma once

namespace host {

/// Adds these functions to those that are replaced. After FindReplacedSlots.
void AddLinkerCalls();

}  // namespace host
