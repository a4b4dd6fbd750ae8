// SPDX-License-Identifier: Apache-2.0
// Finds loaded objects on Android. Any thread; takes the dynamic linker's lock.
#include "platform/cfi/loaded_object.h"

namespace platform::cfi {

void PrepareLoadedObjects() {}

bool FindLoadedObject(std::uint64_t pc, LoadedObject* object) {
  return SearchLoadedObjects(pc, object);
}

}  // namespace platform::cfi
