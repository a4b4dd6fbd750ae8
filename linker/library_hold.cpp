// References to loaded libraries. See the header for who takes them.
#include "linker/library_hold.h"

#include <link.h>

#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace lumora::linker {

namespace {

/// What the loader has at an address.
struct Search {
  std::uint64_t address = 0;
  bool found = false;
  bool same_name = false;
  /// How many libraries were unloaded so far; 0 where the loader does not count.
  unsigned long long unloaded = 0;
  /// As the loader has it; "" for a program, and for names that are too long.
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

/// dl_iterate_phdr's callback: compares the name of the library at the address with the one before,
/// and copies it. The loader's own string goes with the library, maybe as soon as the walk is over.
int TakeName(dl_phdr_info* info, std::size_t size, void* data) {
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

bool LookAgain(Search& search) {
  search.found = false;
  dl_iterate_phdr(TakeName, &search);
  return search.found;
}

}  // namespace

bool hold_library_at(const void* address, LibraryHold& hold) {
  hold = nullptr;
  Search search;
  search.address = reinterpret_cast<std::uint64_t>(address);
  if (!LookAgain(search)) return false;
  while (search.name[0] != '\0') {
    const unsigned long long unloaded = search.unloaded;
    hold.reset(dlopen(search.name, RTLD_NOLOAD | RTLD_LAZY));
    // Meanwhile the library may have gone, and another one, or itself again, come to the address.
    const bool there = LookAgain(search);
    if (there && search.same_name && (hold != nullptr || search.unloaded == unloaded)) return true;
    hold = nullptr;
    if (!there) return false;
  }
  return true;
}

}  // namespace lumora::linker
