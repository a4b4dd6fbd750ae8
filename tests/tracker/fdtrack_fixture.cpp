// The tracker of file descriptors as the tests want it: notes its calls.
#include <cstdint>
#include <cstdio>
#include <cstring>

extern "C" {

char fdtrack_calls[256];

#ifndef WITHOUT_ENABLE
void EnableFdHook(std::uint32_t size, std::uint32_t type) {
  const std::size_t used = std::strlen(fdtrack_calls);
  std::snprintf(fdtrack_calls + used, sizeof fdtrack_calls - used, "enable(%u,%u) ", size, type);
}
#endif
#ifndef WITHOUT_DISABLE
void DisableFdHook() {
  std::strcat(fdtrack_calls, "disable ");
}
#endif
#ifndef WITHOUT_DUMP
void DumpFdleakStackToFile() {
  std::strcat(fdtrack_calls, "dump ");
}
#endif

}  // extern "C"
