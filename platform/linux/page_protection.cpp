// Protection of a library's pages on Linux. On the thread that hooks.
#include "platform/page_protection.h"

namespace platform {

int ProtectionAfterWrite(const void* page, std::size_t bytes) {
  return LinuxProtectionAfterWrite(page, bytes);
}

}  // namespace platform
