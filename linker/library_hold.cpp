// SPDX-License-Identifier: Apache-2.0
// References to loaded libraries.
#include "linker/library_hold.h"

#include <link.h>

#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace lumora::linker {

namespace {

/// A search for the library at an address.
struct Search {
  std::uint64_t address = 0;
  bool found = false;
  bool same_name = false;
  /// Number of libraries unloaded so far; 0 if the loader does not count them.
  unsigned long long unloaded = 0;
  /// The loader's name for it; "" for the main program, and for a name that is too long.
  char name[PATH_MAX] = "";
};

bool Covers(const dl_phdr_info& info, std::uint64_t address) {
  for (std::uint64_t index = 0; index < info.dlpi_phnum; ++index) {
    const auto& header = info.dlpi_phdr[index];
    if (header.p_type == PT_LOAD && address - info.dlpi_addr - header.p_vaddr < header.p_memsz) {
      return true;
    }
  }
  return false;
}

/// Callback of dl_iterate_phdr. Compares the name of the library at the address with the previous
/// one and copies it: the loader's string is freed with the library, which may happen as soon as
/// the walk ends.
int CopyName(dl_phdr_info* info, std::size_t size, void* data) {
  auto& search = *static_cast<Search*>(data);
  if (!Covers(*info, search.address)) return 0;
  search.found = true;
  if (size >= offsetof(dl_phdr_info, dlpi_subs) + sizeof(info->dlpi_subs)) {
    search.unloaded = info->dlpi_subs;
  }
  const char* name = info->dlpi_name != nullptr ? info->dlpi_name : "";
  search.same_name = std::strcmp(name, search.name) == 0;
  const std::size_t bytes = std::strlen(name) + 1;
  if (bytes <= sizeof(search.name)) {
    std::memcpy(search.name, name, bytes);
  } else {
    search.name[0] = '\0';
  }
  return 1;
}

bool SearchLoader(Search& search) {
  search.found = false;
  dl_iterate_phdr(CopyName, &search);
  return search.found;
}

}  // namespace

bool hold_library_at(const void* address, LibraryHold& hold) {
  hold = nullptr;
  Search search;
  search.address = reinterpret_cast<std::uint64_t>(address);
  if (!SearchLoader(search)) return false;
  while (search.name[0] != '\0') {
    const unsigned long long unloaded = search.unloaded;
    hold.reset(dlopen(search.name, RTLD_NOLOAD | RTLD_LAZY));
    // The library may have been unloaded meanwhile, and a library may have been loaded at the same
    // address: another one, or the same one again.
    const bool there = SearchLoader(search);
    if (there && search.same_name && (hold != nullptr || search.unloaded == unloaded)) return true;
    hold = nullptr;
    if (!there) return false;
  }
  return true;
}

}  // namespace lumora::linker
