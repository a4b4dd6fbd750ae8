// SPDX-License-Identifier: Apache-2.0
// Finds the next functions, for a preloaded and for an attached loader.
#include "host/next_function.h"

#include <dlfcn.h>
#include <link.h>
#include <string.h>

#include "host/form.h"
#include "linker/import_slots.h"

namespace host {
namespace {

/// The object that contains an address.
struct Place {
  const void* address;
  bool in_program;
  bool in_loader;
};

int FindPlace(dl_phdr_info* info, size_t /*size*/, void* data) {
  auto& place = *static_cast<Place*>(data);
  const lumora::linker::ImportSlots object(*info);
  if (!object.ContainsCode(place.address)) return 0;
  // The dynamic linker has no name for the program.
  place.in_program = info->dlpi_name == nullptr || info->dlpi_name[0] == '\0';
  place.in_loader = object.ContainsCode(reinterpret_cast<const void*>(&FindPlace));
  return 1;
}

/// Returns whether `function` is an entry of a PLT. In a program that is not position-independent,
/// dlsym may return such an entry of the program for a function of a library.
bool IsInPlt(const void* function) {
  Dl_info info;
  void* symbol = nullptr;
  return dladdr1(function, &info, &symbol, RTLD_DL_SYMENT) != 0 && symbol != nullptr &&
         static_cast<const ElfW(Sym)*>(symbol)->st_shndx == SHN_UNDEF;
}

struct FirstSearch {
  const char* name;
  void* found;
};

int SearchObject(dl_phdr_info* info, size_t /*size*/, void* data) {
  auto& search = *static_cast<FirstSearch*>(data);
  const lumora::linker::ImportSlots object(*info);
  if (object.ContainsCode(reinterpret_cast<const void*>(&SearchObject))) return 0;
  object.ForEachFunction([&](const ElfW(Sym) & symbol, const char* name) {
    if (search.found == nullptr && strcmp(name, search.name) == 0) {
      search.found = object.AddressOf(symbol);
    }
  });
  return search.found != nullptr ? 1 : 0;
}

/// Returns the first definition of `name` outside the loader, in load order; null if there is none.
void* FirstDefinition(const char* name) {
  FirstSearch search{name, nullptr};
  dl_iterate_phdr(SearchObject, &search);
  return search.found;
}

}  // namespace

void* NextDefinition(const char* name) {
  if (CurrentForm() == Form::kPreloaded) return dlsym(RTLD_NEXT, name);
  void* const found = dlsym(RTLD_DEFAULT, name);
  if (found == nullptr) return nullptr;
  Place place{found, false, false};
  dl_iterate_phdr(FindPlace, &place);
  // The loader is the last object in the search order.
  if (place.in_loader) return nullptr;
  return place.in_program && IsInPlt(found) ? FirstDefinition(name) : found;
}

}  // namespace host
