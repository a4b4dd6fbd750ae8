// SPDX-License-Identifier: Apache-2.0
// Records the address range of each object, to detect that another object reuses it.
#pragma once

#include "platform/cfi/loaded_object.h"

namespace platform::cfi {

/// Records `object`. Returns false if its range overlaps that of another recorded object: that
/// object was unloaded, so all rules cached for its addresses are invalid. Any thread, any context;
/// takes no lock.
bool RecordObject(const LoadedObject& object);

}  // namespace platform::cfi
