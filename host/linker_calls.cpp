// SPDX-License-Identifier: Apache-2.0
// Replaces the slots of objects that the program loads.
//
// The dynamic linker identifies the caller of dlopen by the return address, and uses the caller's
// directory, search path and namespace. If these matter, dlopen is called by a tail call, so the
// slots of the new objects cannot be replaced when it returns. They are replaced at the next call
// of a function in this file, usually the dlsym that follows.
//
// Every build type compiles this file with optimization and without frame pointers, for tail calls
// (CMakeLists.txt).
#include "host/linker_calls.h"

#include <dlfcn.h>
#include <errno.h>
#include <link.h>
#include <string.h>

#include "host/next_function.h"
#include "host/slots.h"

namespace host {
namespace {

NextFunction<void*(const char*, int)> next_dlopen{"dlopen"};
NextFunction<void*(void*, const char*)> next_dlsym{"dlsym"};
NextFunction<void*(void*, const char*, const char*)> next_dlvsym{"dlvsym"};

/// Whether the dynamic linker uses the caller's search path or directory to find `file` or the
/// libraries that it needs.
bool CallerMatters(const char* file, const void* caller) {
  if (strchr(file, '$') != nullptr) return true;
  Dl_info info;
  link_map* object = nullptr;
  if (dladdr1(caller, &info, reinterpret_cast<void**>(&object), RTLD_DL_LINKMAP) == 0) return true;
  const bool search = strchr(file, '/') == nullptr;
  for (const ElfW(Dyn)* entry = object->l_ld; entry->d_tag != DT_NULL; ++entry) {
    if (entry->d_tag == DT_RPATH || (entry->d_tag == DT_RUNPATH && search)) return true;
  }
  return false;
}

void* Open(const char* file, int mode) {
  ReplaceNewSlots();
  if (file == nullptr || CallerMatters(file, __builtin_return_address(0))) {
    return next_dlopen(file, mode);
  }
  void* const library = next_dlopen(file, mode);
  // No scan after a failed call: it would change the result of dlerror.
  if (library != nullptr) ReplaceNewSlots();
  return library;
}

void* Symbol(void* handle, const char* name) {
  ReplaceNewSlots();
  return next_dlsym(handle, name);
}

void* VersionedSymbol(void* handle, const char* name, const char* version) {
  ReplaceNewSlots();
  return next_dlvsym(handle, name, version);
}

}  // namespace

void AddLinkerCalls() {
  AddReplacedSlot("dlopen", reinterpret_cast<void*>(Open));
  AddReplacedSlot("dlsym", reinterpret_cast<void*>(Symbol));
  AddReplacedSlot("dlvsym", reinterpret_cast<void*>(VersionedSymbol));
}

}  // namespace host
