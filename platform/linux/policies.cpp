// SPDX-License-Identifier: Apache-2.0
// The policies of Linux.
#include "platform/policies.h"

#include <link.h>
#include <sys/mman.h>

#include <cerrno>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <optional>

#include "platform/linux/maps_lines.h"

namespace platform {
namespace {

struct RelroSearch {
  std::uint64_t page;
  std::uint64_t page_bytes;
  bool found;
};

/// A dl_iterate_phdr callback: looks for a PT_GNU_RELRO segment that contains the page. glibc
/// rounds both ends of the segment down, because writable data may follow on its last page.
int FindRelro(dl_phdr_info* info, std::size_t /*size*/, void* data) {
  auto* search = static_cast<RelroSearch*>(data);
  const std::uint64_t mask = ~(search->page_bytes - 1);
  for (int i = 0; i < info->dlpi_phnum; ++i) {
    const auto& header = info->dlpi_phdr[i];
    if (header.p_type != PT_GNU_RELRO) continue;
    const std::uint64_t start = info->dlpi_addr + header.p_vaddr;
    if (search->page >= (start & mask) && search->page < ((start + header.p_memsz) & mask)) {
      search->found = true;
      return 1;
    }
  }
  return 0;
}

/// Returns the PROT_ bits that a line of /proc/self/maps shows if the line's mapping contains
/// `page`.
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

/// Returns the current PROT_ bits of `page`, or nothing if they cannot be read.
std::optional<int> CurrentProtection(std::uint64_t page) {
  std::optional<int> protection;
  ForEachMapsLine([&](const char* line) {
    protection = ProtectionInLine(line, page);
    return !protection;
  });
  return protection;
}

}  // namespace

bool ForkedChildFreesLocks() {
  return true;
}

bool CommandsRunDuringFork() {
  return false;
}

int ProtectionAfterWrite(const void* page, std::size_t bytes) {
  const auto address = reinterpret_cast<std::uint64_t>(page);
  RelroSearch search = {address, bytes, false};
  dl_iterate_phdr(FindRelro, &search);
  if (search.found) return PROT_READ;
  const int saved_errno = errno;
  const int protection = CurrentProtection(address).value_or(PROT_READ | PROT_WRITE);
  errno = saved_errno;
  return protection;
}

PcWidth AcceptedPcWidth() {
  return kLinuxPcWidth;
}

bool ThreadKeyNeverAllocates(pthread_key_t key) {
  constexpr pthread_key_t kKeysInThread = 32;  // glibc: PTHREAD_KEY_2NDLEVEL_SIZE
  return key < kKeysInThread;
}

}  // namespace platform
