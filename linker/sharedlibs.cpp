// SPDX-License-Identifier: Apache-2.0
// The registry of loaded libraries, by basename. Any thread.
//
// Lock order: the loader's lock before the registry's lock. dl_iterate_phdr holds the loader's lock
// while its callback takes the registry's lock, so no code may call the loader under the registry's
// lock.
#include "linker/sharedlibs.h"

#include <android-base/logging.h>
#include <dlfcn.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "linker/rwlock.h"
#include "platform/elf_policy.h"
#include "platform/never_destroyed.h"

namespace lumora::linker {

namespace {

constexpr std::size_t kBasenameBytes = 1024;

struct Entry {
  std::string key;
  elfSharedLibData library;
};
/// The keys point to the entries' own strings, so that a lookup allocates no string.
using Registry = std::unordered_map<std::string_view, std::unique_ptr<const Entry>>;
using IterateFunction = int (*)(int (*)(dl_phdr_info*, std::size_t, void*), void*);

pthread_rwlock_t registry_lock = PTHREAD_RWLOCK_INITIALIZER;
std::atomic<bool> linker_enabled{true};

/// Never destroyed: the report at exit removes the hooks, and commands may arrive while exit
/// handlers run.
Registry& SharedLibs() {
  static platform::NeverDestroyed<Registry> registry;
  return registry.get();
}

/// Returns the last component of `path` as plt_basename does, without a length limit.
std::string_view Basename(const char* path) {
  std::string_view rest = path != nullptr ? path : "";
  if (rest.empty()) return ".";
  while (!rest.empty() && rest.back() == '/') rest.remove_suffix(1);
  if (rest.empty()) return "/";
  const std::size_t slash = rest.rfind('/');
  return slash == std::string_view::npos ? rest : rest.substr(slash + 1);
}

/// Adds one object if it is a library that is not known. Does not use plt_basename, whose buffer is
/// shared by all threads.
void AddLibrary(const dl_phdr_info& info) {
  if (info.dlpi_name == nullptr || !platform::AcceptsLibrary(info.dlpi_name)) return;
  const std::string_view key = Basename(info.dlpi_name);
  if (key.size() >= kBasenameBytes) return;  // plt_basename could not name it
  {
    const ReadLock lock(&registry_lock);
    if (SharedLibs().count(key) != 0) return;
  }
  auto entry = std::make_unique<const Entry>(Entry{std::string(key), elfSharedLibData(&info)});
  const WriteLock lock(&registry_lock);
  // Keeps an existing record if another thread was faster. Incomplete records are added too.
  const std::string_view name = entry->key;
  SharedLibs().emplace(name, std::move(entry));
}

/// Callback of dl_iterate_phdr. Sets `data`, a bool, if there is no memory: no exception may pass
/// through the C library. Returns 0 to continue the walk.
int AddLibraryCallback(dl_phdr_info* info, std::size_t /*size*/, void* data) {
  try {
    AddLibrary(*info);
  } catch (const std::bad_alloc&) {
    *static_cast<bool*>(data) = true;
  }
  return 0;
}

/// Returns the record of the library. If there is none, logs that and returns the empty record.
elfSharedLibData Find(const char* libname) {
  {
    const ReadLock lock(&registry_lock);
    const auto found = SharedLibs().find(Basename(libname));
    if (found != SharedLibs().end()) return found->second->library;
  }
  LOG(ERROR) << "no sharelib " << (libname != nullptr ? libname : "");
  return elfSharedLibData();
}

/// Drops the library's record, so that the next refresh reads the library again.
void Forget(const char* libname) {
  const WriteLock lock(&registry_lock);
  SharedLibs().erase(Basename(libname));
}

}  // namespace

elfSharedLibData sharedLib(const char* libname) {
  const elfSharedLibData library = Find(libname);
  if (!library) Forget(libname);
  return library;
}

HeldLibrary hold_shared_lib(const char* libname) {
  const elfSharedLibData library = Find(libname);
  LibraryHold hold;
  // Takes the reference first, so that has_symbols checks a library that stays loaded.
  if (hold_library_at(library.symtab_, hold) && library.has_symbols()) {
    return {std::move(hold), library};
  }
  Forget(libname);
  return {};
}

int refresh_shared_libs() {
  // Not a static with a dynamic initializer: its guard would be held around the loader's lock.
  static std::atomic<IterateFunction> kept{nullptr};
  IterateFunction iterate = kept.load();
  if (iterate == nullptr) {
    iterate = reinterpret_cast<IterateFunction>(dlsym(RTLD_DEFAULT, "dl_iterate_phdr"));
    kept.store(iterate);
  }
  if (iterate == nullptr) {
    errno = ENOSYS;
    return 1;
  }
  bool out_of_memory = false;
  iterate(AddLibraryCallback, &out_of_memory);
  if (!out_of_memory) return 0;
  errno = ENOMEM;
  return 1;
}

int linker_initialize() {
  if (linker_enabled.load()) return refresh_shared_libs();
  errno = ENOTSUP;
  return 1;
}

void linker_set_enabled(int enabled) {
  linker_enabled.store(enabled != 0);
}

char* plt_basename(const char* path) {
  static char buffer[kBasenameBytes];
  const std::string_view name = Basename(path);
  if (name.size() >= kBasenameBytes) {
    errno = ENAMETOOLONG;
    return nullptr;
  }
  std::memcpy(buffer, name.data(), name.size());
  buffer[name.size()] = '\0';
  return buffer;
}

}  // namespace lumora::linker
