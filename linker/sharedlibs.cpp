// The registry of loaded libraries, by basename. Any thread.
//
// The loader's lock is taken outside the registry's lock only: dl_iterate_phdr holds it around the
// callback, which takes the registry's, so that nothing may ask the loader under the registry's.
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
/// The keys are the entries' own, so that a lookup needs no string.
using Registry = std::unordered_map<std::string_view, std::unique_ptr<const Entry>>;
using IterateFunction = int (*)(int (*)(dl_phdr_info*, std::size_t, void*), void*);

pthread_rwlock_t registry_lock = PTHREAD_RWLOCK_INITIALIZER;
std::atomic<bool> linker_enabled{true};

/// Left to the process's end, never to its exit handlers: the report at the exit takes the hooks
/// away, and commands come until the last moment.
Registry& SharedLibs() {
  static platform::NeverDestroyed<Registry> registry;
  return registry.get();
}

/// The last component of `path`, by the rules of plt_basename; too long ones included.
std::string_view Basename(const char* path) {
  std::string_view rest = path != nullptr ? path : "";
  if (rest.empty()) return ".";
  while (!rest.empty() && rest.back() == '/') rest.remove_suffix(1);
  if (rest.empty()) return "/";
  const std::size_t slash = rest.rfind('/');
  return slash == std::string_view::npos ? rest : rest.substr(slash + 1);
}

/// Adds one object if it is a library that is not known. Not keyed by plt_basename: its one buffer
/// would mix up the names that two threads ask for at once.
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
  // A thread that was faster keeps its record. An incomplete one is kept as well.
  const std::string_view name = entry->key;
  SharedLibs().emplace(name, std::move(entry));
}

/// dl_iterate_phdr's callback. No exception may pass through the C library: `data`, a bool, says
/// that there was no memory. Returns 0, so that the walk goes on.
int AddLibraryOrNote(dl_phdr_info* info, std::size_t /*size*/, void* data) {
  try {
    AddLibrary(*info);
  } catch (const std::bad_alloc&) {
    *static_cast<bool*>(data) = true;
  }
  return 0;
}

/// The record of the library, or the empty one and a log line.
elfSharedLibData Find(const char* libname) {
  {
    const ReadLock lock(&registry_lock);
    const auto found = SharedLibs().find(Basename(libname));
    if (found != SharedLibs().end()) return found->second->library;
  }
  LOG(ERROR) << "no sharelib " << (libname != nullptr ? libname : "");
  return elfSharedLibData();
}

/// Drops the library's record, so that the next refresh reads it again.
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
  // In this order: what is held is what is looked at.
  if (hold_library_at(library.symtab_, hold) && library.has_symbols()) {
    return {std::move(hold), library};
  }
  Forget(libname);
  return {};
}

int refresh_shared_libs() {
  // Not a static with an initializer: its guard would be a lock around the loader's.
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
  iterate(AddLibraryOrNote, &out_of_memory);
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
