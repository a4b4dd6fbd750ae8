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
#include <string>
#include <string_view>
#include <unordered_map>

#include "linker/rwlock.h"
#include "platform/elf_policy.h"

namespace lumora::linker {

namespace {

constexpr std::size_t kBasenameBytes = 1024;

using Registry = std::unordered_map<std::string, elfSharedLibData>;
using IterateFunction = int (*)(int (*)(dl_phdr_info*, std::size_t, void*), void*);

pthread_rwlock_t registry_lock = PTHREAD_RWLOCK_INITIALIZER;
std::atomic<bool> linker_enabled{true};

/// Left to the process's end, never to its exit handlers: the report at the exit takes the hooks
/// away, and commands come until the last moment.
Registry& SharedLibs() {
  static auto* registry = new Registry;
  return *registry;
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

/// The registry's key for a library. Not by plt_basename: its one buffer would mix up the names
/// that two threads ask for at once.
std::string KeyOf(const char* path) {
  return std::string(Basename(path));
}

/// dl_iterate_phdr's callback: adds one object if it is a library that is not known. Returns 0, so
/// that the walk goes on.
int AddLibrary(dl_phdr_info* info, std::size_t /*size*/, void* /*data*/) {
  if (info->dlpi_name == nullptr || !platform::AcceptsLibrary(info->dlpi_name)) return 0;
  const std::string key = KeyOf(info->dlpi_name);
  if (key.size() >= kBasenameBytes) return 0;
  {
    const ReadLock lock(&registry_lock);
    if (SharedLibs().count(key) != 0) return 0;
  }
  const elfSharedLibData library(info);
  const WriteLock lock(&registry_lock);
  // A thread that was faster keeps its record. An incomplete one is kept as well.
  SharedLibs().emplace(key, library);
  return 0;
}

/// Copies the record of `key` if there is one.
bool Find(const std::string& key, elfSharedLibData& library) {
  const ReadLock lock(&registry_lock);
  const auto found = SharedLibs().find(key);
  if (found == SharedLibs().end()) return false;
  library = found->second;
  return true;
}

}  // namespace

elfSharedLibData sharedLib(const char* libname) {
  static const elfSharedLibData empty;
  const std::string key = KeyOf(libname);
  elfSharedLibData library = empty;
  if (!Find(key, library)) {
    LOG(ERROR) << "no sharelib " << (libname != nullptr ? libname : "");
  }
  if (!library) {
    const WriteLock lock(&registry_lock);
    SharedLibs().erase(key);
  }
  return library;
}

int refresh_shared_libs() {
  static const auto iterate =
      reinterpret_cast<IterateFunction>(dlsym(RTLD_DEFAULT, "dl_iterate_phdr"));
  if (iterate == nullptr) return 1;
  iterate(AddLibrary, nullptr);
  return 0;
}

int linker_initialize() {
  return linker_enabled.load() ? refresh_shared_libs() : 1;
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
