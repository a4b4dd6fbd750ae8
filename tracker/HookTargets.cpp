// The hook targets. See the header for who runs it.
#include "tracker/HookTargets.h"

#include <sys/system_properties.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

#include "async_safe/log.h"
#include "linker/sharedlibs.h"
#include "plthooks/plthooks.h"
#include "tracker/MemTrackControl.h"
#include "tracker/proxies.h"

namespace {

constexpr char kLogTag[] = "MemLeak.Native";
constexpr char kSeparator = ',';

/// Hooked under their own name, whatever the library.
constexpr const char* kPlainNames[] = {"mmap", "mmap64", "__mmap2", "mremap", "munmap"};

struct ProxyRow {
  const char* key;
  void* proxy;
};

/// mmap and mmap64 are one function here: offsets have 64 bits.
const ProxyRow kProxies[] = {
    {"mmap", reinterpret_cast<void*>(shared_proxy_mmap64)},
    {"mmap64", reinterpret_cast<void*>(shared_proxy_mmap64)},
    {"__mmap2", reinterpret_cast<void*>(shared_proxy___mmap2)},
    {"mremap", reinterpret_cast<void*>(shared_proxy_mremap)},
    {"munmap", reinterpret_cast<void*>(shared_proxy_munmap)},
    {"ioctl_libdmabufheap.so", reinterpret_cast<void*>(shared_proxy_ion_ioctl)},
    {"ioctl_libgsl.so", reinterpret_cast<void*>(shared_proxy_gpu_ioctl)},
};

struct Targets {
  std::vector<std::string> libraries;
  std::vector<std::string> functions;
};

/// Never destroyed: a command may come while the process ends.
Targets& CurrentTargets() {
  static auto* targets = new Targets;
  return *targets;
}

void* FindProxy(const std::string& key) {
  const auto* row = std::find_if(std::begin(kProxies), std::end(kProxies),
                                 [&key](const ProxyRow& each) { return key == each.key; });
  return row != std::end(kProxies) ? row->proxy : nullptr;
}

/// Calls `action(library, function, key, proxy)` for every pair that has a proxy: libraries in
/// their order, and for each one the functions in theirs.
template <typename Action>
void ForEachPair(Action action) {
  const Targets& targets = CurrentTargets();
  for (const std::string& library : targets.libraries) {
    for (const std::string& function : targets.functions) {
      const std::string key = get_key_from_fun_and_lib(function, library);
      void* proxy = FindProxy(key);
      if (proxy != nullptr) action(library.c_str(), function.c_str(), key.c_str(), proxy);
    }
  }
}

}  // namespace

bool GetHookParams() {
  char libraries[PROP_VALUE_MAX] = {};
  char functions[PROP_VALUE_MAX] = {};
  if (__system_property_get("persist.sys.memleak.hookLib", libraries) == 0 ||
      libraries[0] == '\0' ||
      __system_property_get("persist.sys.memleak.hookFunc", functions) == 0 ||
      functions[0] == '\0') {
    return false;
  }
  Targets& targets = CurrentTargets();
  targets.libraries.clear();
  SplitToVector(&targets.libraries, libraries, kSeparator);
  targets.functions.clear();
  SplitToVector(&targets.functions, functions, kSeparator);
  return true;
}

void SplitToVector(std::vector<std::string>* list, const std::string& text, char separator) {
  std::size_t start = 0;
  while (start < text.size()) {
    const std::size_t end = std::min(text.find(separator, start), text.size());
    if (end != start) list->push_back(text.substr(start, end - start));
    start = end + 1;
  }
}

std::string get_key_from_fun_and_lib(const std::string& function, const std::string& library) {
  const bool is_plain = std::any_of(std::begin(kPlainNames), std::end(kPlainNames),
                                    [&function](const char* name) { return function == name; });
  return is_plain ? function : function + "_" + library;
}

bool hook_by_plt() {
  lumora::linker::linker_set_enabled(1);
  if (lumora::plthooks::plthooks_initialize() != 0) {
    async_safe_format_log(ANDROID_LOG_ERROR, kLogTag, "plt init error: %s", std::strerror(errno));
  }
  bool any = false;
  ForEachPair([&any](const char* library, const char* function, const char* key, void* proxy) {
    if (lumora::plthooks::hook_plt_method(library, function, proxy) == 0) {
      any = true;
      is_plt_hook.store(true);
    } else {
      async_safe_format_log(ANDROID_LOG_ERROR, kLogTag, "plt hook %s error: %s", key,
                            std::strerror(errno));
    }
  });
  return any;
}

void unhook_by_plt() {
  ForEachPair([](const char* library, const char* function, const char* key, void* proxy) {
    if (lumora::plthooks::unhook_plt_method(library, function, proxy) != 0) {
      async_safe_format_log(ANDROID_LOG_ERROR, kLogTag, "plt unhook %s error: %s", key,
                            std::strerror(errno));
    }
  });
  is_plt_hook.store(false);
}
