// The tracker of file descriptors as the tests want it: notes its calls.
#include <cstdint>
#include <cstdio>
#include <cstring>

extern "C" {

char fdtrack_calls[256];

static void Note(const char* text) {
  const std::size_t used = std::strlen(fdtrack_calls);
  std::snprintf(fdtrack_calls + used, sizeof fdtrack_calls - used, "%s ", text);
}

#ifndef WITHOUT_ENABLE
void EnableFdHook(std::uint32_t size, std::uint32_t type) {
  char text[40];
  std::snprintf(text, sizeof text, "enable(%u,%u)", size, type);
  Note(text);
}
#endif
#ifndef WITHOUT_DISABLE
void DisableFdHook() {
  Note("disable");
}
#endif
#ifndef WITHOUT_DUMP
void DumpFdleakStackToFile() {
  Note("dump");
}
#endif

}  // extern "C"
