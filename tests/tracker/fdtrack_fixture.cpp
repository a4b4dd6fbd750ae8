// SPDX-License-Identifier: Apache-2.0
// Replaces the tracker of file descriptors and records its calls.
#include <cstdint>
#include <cstdio>
#include <cstring>

extern "C" {

char fdtrack_calls[256];

void EnableFdHook(std::uint32_t size, std::uint32_t type) {
  std::sprintf(fdtrack_calls + std::strlen(fdtrack_calls), "enable(%u,%u) ", size, type);
}
void DisableFdHook() {
  std::strcat(fdtrack_calls, "disable ");
}
void DumpFdleakStackToFile() {
  std::strcat(fdtrack_calls, "dump ");
}

}  // extern "C"
