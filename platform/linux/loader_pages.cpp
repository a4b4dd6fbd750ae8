// The rule for a library's pages on Linux: as the loader left them. On the thread that hooks.
#include "platform/page_protection.h"

#include <fcntl.h>
#include <link.h>
#include <sys/mman.h>

#include <cerrno>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string_view>

#include "platform/standin/raw_calls.h"

namespace platform {

namespace {

/// A page looked for in the loaded libraries.
struct RelroSearch {
  std::uint64_t page;
  std::uint64_t page_bytes;
  bool found;
};

/// dl_iterate_phdr's callback. The C library rounds both ends of the area down, since it may not
/// protect what follows it on its last page.
int LookForRelro(dl_phdr_info* info, std::size_t /*size*/, void* data) {
  auto* search = static_cast<RelroSearch*>(data);
  const std::uint64_t mask = ~(search->page_bytes - 1);
  for (int at = 0; at < info->dlpi_phnum; ++at) {
    const auto& header = info->dlpi_phdr[at];
    if (header.p_type != PT_GNU_RELRO) continue;
    const std::uint64_t start = info->dlpi_addr + header.p_vaddr;
    if (search->page >= (start & mask) && search->page < ((start + header.p_memsz) & mask)) {
      search->found = true;
      return 1;
    }
  }
  return 0;
}

/// The PROT_ bits that a line of /proc/self/maps gives for `page`; nothing for another mapping's.
std::optional<int> ProtectionInLine(const char* line, std::uint64_t page) {
  std::uint64_t start = 0;
  std::uint64_t end = 0;
  char flags[5] = {};
  if (std::sscanf(line, "%" SCNx64 "-%" SCNx64 " %4s", &start, &end, flags) != 3) {
    return std::nullopt;
  }
  if (page < start || page >= end) return std::nullopt;
  return (flags[0] == 'r' ? PROT_READ : 0) | (flags[1] == 'w' ? PROT_WRITE : 0) |
         (flags[2] == 'x' ? PROT_EXEC : 0);
}

/// The PROT_ bits of `page` at the moment.
std::optional<int> CurrentProtection(std::uint64_t page) {
  const int file = RawOpen("/proc/self/maps", O_RDONLY | O_CLOEXEC);
  if (file < 0) return std::nullopt;
  char buffer[8192];
  std::size_t used = 0;
  std::optional<int> protection;
  while (!protection) {
    const ssize_t count = RawRead(file, buffer + used, sizeof buffer - 1 - used);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) break;
    used += static_cast<std::size_t>(count);
    buffer[used] = '\0';
    char* line = buffer;
    for (char* end = nullptr; !protection && (end = std::strchr(line, '\n')) != nullptr;) {
      *end = '\0';
      protection = ProtectionInLine(line, page);
      line = end + 1;
    }
    used -= static_cast<std::size_t>(line - buffer);
    std::memmove(buffer, line, used);
  }
  RawClose(file);
  return protection;
}

}  // namespace

int LinuxProtectionAfterWrite(const void* page, std::size_t bytes) {
  const auto address = reinterpret_cast<std::uint64_t>(page);
  RelroSearch search = {address, bytes, false};
  dl_iterate_phdr(LookForRelro, &search);
  if (search.found) return PROT_READ;
  const int saved_errno = errno;
  const int protection = CurrentProtection(address).value_or(PROT_READ | PROT_WRITE);
  errno = saved_errno;
  return protection;
}

}  // namespace platform
