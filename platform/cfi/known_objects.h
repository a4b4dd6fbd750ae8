// Which object was seen where, to find out when one took another one's place.
#pragma once

#include "platform/cfi/loaded_object.h"

namespace platform::cfi {

/// Notes that there is `object`. Returns false when another one was where it is: that one was
/// unloaded, and what is known of its addresses is wrong. Any thread, any context; takes no lock.
bool NoteObject(const LoadedObject& object);

}  // namespace platform::cfi
