// SPDX-License-Identifier: Apache-2.0
// Finds loaded objects by glibc's _dl_find_object, which takes no lock and may be used in signal
// handlers. Any thread.
#include "platform/cfi/loaded_object.h"
#include "platform/readable.h"

#include <dlfcn.h>
#include <link.h>
#include <sys/auxv.h>

#include <cstring>

namespace platform::cfi {
namespace {

/// Null before glibc 2.35. Looked up by name, so that the library also loads with an older glibc.
int (*g_find_object)(void*, dl_find_object*) = nullptr;

/// Takes the program headers from the ELF header at the start of the object. Returns false if there
/// is no ELF header: for an object with gaps between its segments, glibc reports only the segment
/// that contains the address.
__attribute__((noinline)) bool TakeHeaders(LoadedObject* object) {
  if (!CanRead(object->begin, sizeof(Elf64_Ehdr))) return false;
  const auto* header = reinterpret_cast<const Elf64_Ehdr*>(object->begin);
  if (std::memcmp(header->e_ident, ELFMAG, SELFMAG) != 0 ||
      header->e_ident[EI_CLASS] != ELFCLASS64 || header->e_phentsize != sizeof(Elf64_Phdr) ||
      header->e_phoff % alignof(Elf64_Phdr) != 0) {
    return false;
  }
  const std::uint64_t headers = object->begin + header->e_phoff;
  const std::size_t bytes = header->e_phnum * sizeof(Elf64_Phdr);
  if (header->e_phoff > object->end - object->begin || bytes > object->end - headers ||
      !CanRead(headers, bytes)) {
    return false;
  }
  object->headers = reinterpret_cast<const Elf64_Phdr*>(headers);
  object->header_count = header->e_phnum;
  return true;
}

/// Takes the main program's headers from the auxiliary vector. Returns false for other objects.
bool TakeHeadersOfProgram(const link_map* map, LoadedObject* object) {
  if (map != _r_debug.r_map) return false;
  object->headers = reinterpret_cast<const Elf64_Phdr*>(getauxval(AT_PHDR));
  object->header_count = getauxval(AT_PHNUM);
  return object->headers != nullptr;
}

}  // namespace

void PrepareLoadedObjects() {
  g_find_object = reinterpret_cast<decltype(g_find_object)>(dlsym(RTLD_DEFAULT, "_dl_find_object"));
}

bool FindLoadedObject(std::uint64_t pc, LoadedObject* object) {
  if (g_find_object == nullptr) return SearchLoadedObjects(pc, object);
  dl_find_object found{};
  if (g_find_object(reinterpret_cast<void*>(pc), &found) != 0) return false;
  object->begin = reinterpret_cast<std::uint64_t>(found.dlfo_map_start);
  object->end = reinterpret_cast<std::uint64_t>(found.dlfo_map_end);
  object->bias = found.dlfo_link_map->l_addr;
  object->frame_header = reinterpret_cast<std::uint64_t>(found.dlfo_eh_frame);
  return TakeHeaders(object) || TakeHeadersOfProgram(found.dlfo_link_map, object) ||
         SearchLoadedObjects(pc, object);
}

}  // namespace platform::cfi
