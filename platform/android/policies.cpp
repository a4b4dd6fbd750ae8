// SPDX-License-Identifier: Apache-2.0
// The policies of Android.
#include "platform/policies.h"

#include <sys/mman.h>

namespace platform {

bool ForkedChildFreesLocks() {
  return false;
}

bool CommandsRunDuringFork() {
  return true;
}

int ProtectionAfterWrite(const void* /*page*/, std::size_t /*bytes*/) {
  return PROT_READ;
}

PcWidth AcceptedPcWidth() {
  return kAndroidPcWidth;
}

bool ThreadKeyNeverAllocates(pthread_key_t /*key*/) {
  return true;
}

}  // namespace platform
