// SPDX-License-Identifier: Apache-2.0
// Finds the constructors of the C library in its dynamic section.
#include "host/c_library.h"

#include <dlfcn.h>
#include <gnu/libc-version.h>
#include <link.h>
#include <stddef.h>
#include <unistd.h>

namespace host {
namespace {

/// Returns the object that contains `address`, or null.
link_map* ObjectOf(const void* address) {
  Dl_info info;
  link_map* object = nullptr;
  const int found = dladdr1(address, &info, reinterpret_cast<void**>(&object), RTLD_DL_LINKMAP);
  return found != 0 ? object : nullptr;
}

link_map* CLibrary() {
  return ObjectOf(reinterpret_cast<const void*>(&gnu_get_libc_version));
}

}  // namespace

bool LoadedBeforeCLibrary() {
  const link_map* const library = CLibrary();
  const link_map* object = ObjectOf(reinterpret_cast<const void*>(&LoadedBeforeCLibrary));
  while (object != nullptr && object != library) object = object->l_next;
  return object != nullptr;
}

void InitializeCLibrary(int argument_count, char** arguments, char** environment) {
  // The C library's first constructor sets environ, so all of them have run.
  if (environ != nullptr) return;
  const link_map* const library = CLibrary();
  if (library == nullptr) {
    environ = environment;
    return;
  }
  using Constructor = void (*)(int, char**, char**);
  Constructor* constructors = nullptr;
  size_t bytes = 0;
  for (const ElfW(Dyn)* entry = library->l_ld; entry->d_tag != DT_NULL; ++entry) {
    if (entry->d_tag == DT_INIT_ARRAY) {
      constructors = reinterpret_cast<Constructor*>(library->l_addr + entry->d_un.d_ptr);
    }
    if (entry->d_tag == DT_INIT_ARRAYSZ) bytes = entry->d_un.d_val;
  }
  for (size_t i = 0; constructors != nullptr && i < bytes / sizeof(Constructor); ++i) {
    constructors[i](argument_count, arguments, environment);
  }
  if (environ == nullptr) environ = environment;
}

}  // namespace host
