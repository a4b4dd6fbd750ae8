// Protection of a library's pages on a device. Any thread, any context.
#include "platform/page_protection.h"

namespace platform {

int ProtectionAfterWrite(const void* page, std::size_t bytes) {
  return AndroidProtectionAfterWrite(page, bytes);
}

}  // namespace platform
