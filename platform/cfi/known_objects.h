// SPDX-License-Identifier: Apache-2.0
// Remembers each object's addresses, to notice when another object takes them.
#pragma once

#include "platform/cfi/loaded_object.h"

namespace platform::cfi {

/// Records `object`. Returns false when another object was at its addresses: that one was
/// unloaded, and what is known of its addresses is wrong. Any thread, any context; takes no lock.
bool NoteObject(const LoadedObject& object);

}  // namespace platform::cfi
