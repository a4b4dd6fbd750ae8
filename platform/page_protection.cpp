// The rule for a library's pages that needs nothing of the system. Any thread, any context.
#include "platform/page_protection.h"

#include <sys/mman.h>

namespace platform {

int AndroidProtectionAfterWrite(const void* /*page*/, std::size_t /*bytes*/) {
  return PROT_READ;
}

}  // namespace platform
