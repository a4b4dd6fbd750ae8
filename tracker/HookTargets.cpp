// SPDX-License-Identifier: Apache-2.0
// The hook targets: read from the properties, hooked and unhooked.
#include "tracker/HookTargets.h"

#include <sys/system_properties.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "async_safe/log.h"
#include "linker/sharedlibs.h"
#include "platform/never_destroyed.h"
#include "platform/published_state.h"
#include "plthooks/plthooks.h"
#include "protocol/kinds.h"
#include "protocol/protocol.h"
#include "tracker/control/MemTrackControl.h"
#include "tracker/proxies.h"

namespace {

using protocol::kLogTag;

static_assert(PROP_VALUE_MAX == protocol::kMaxPropertyBytes + 1);

/// A function to hook in a library.
struct Target {
  std::string library;
  std::string function;
  std::string key;
  void* proxy;
};
/// In the order of the libraries, then of the functions.
using Targets = std::vector<Target>;

/// Never destroyed: a command may arrive while the process ends.
Targets& CurrentTargets() {
  static platform::NeverDestroyed<Targets> targets;
  return targets.get();
}

/// Returns the pairs that have a proxy. Throws std::bad_alloc.
Targets ReadTargets(const char* libraries, const char* functions) {
  std::vector<std::string> library_list;
  std::vector<std::string> function_list;
  SplitToVector(&library_list, libraries, protocol::kNameSeparator);
  SplitToVector(&function_list, functions, protocol::kNameSeparator);
  Targets targets;
  for (const std::string& library : library_list) {
    for (const std::string& function : function_list) {
      std::string key = get_key_from_fun_and_lib(function, library);
      void* const proxy = FindProxy(key);
      if (proxy != nullptr) targets.push_back({library, function, std::move(key), proxy});
    }
  }
  return targets;
}

// Number of calls of hook_by_plt that have hooked something and were not undone.
int hook_rounds = 0;

void LogFailure(const char* verb, const Target& target) {
  async_safe_format_log(ANDROID_LOG_ERROR, kLogTag, "plt %s %s error: %s", verb, target.key.c_str(),
                        std::strerror(errno));
}

}  // namespace

bool GetHookParams() {
  char libraries[PROP_VALUE_MAX] = {};
  char functions[PROP_VALUE_MAX] = {};
  if (__system_property_get(protocol::kHookLibraryProperty, libraries) == 0 ||
      libraries[0] == '\0' ||
      __system_property_get(protocol::kHookFunctionProperty, functions) == 0 ||
      functions[0] == '\0') {
    return false;
  }
  try {
    CurrentTargets() = ReadTargets(libraries, functions);
  } catch (const std::bad_alloc&) {
    async_safe_format_log(ANDROID_LOG_ERROR, kLogTag, "no memory for the hook targets");
    return false;
  }
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
  for (const protocol::Kind& kind : protocol::kKinds) {
    if (kind.library.empty() && kind.Records(function)) return function;
  }
  return function + "_" + library;
}

bool hook_by_plt() {
  lumora::linker::linker_set_enabled(1);
  if (lumora::plthooks::plthooks_initialize() != 0) {
    async_safe_format_log(ANDROID_LOG_ERROR, kLogTag, "plt init error: %s", std::strerror(errno));
  }
  bool any = false;
  for (const Target& target : CurrentTargets()) {
    if (lumora::plthooks::hook_plt_method(target.library.c_str(), target.function.c_str(),
                                          target.proxy) == 0) {
      any = true;
      is_plt_hook.store(true);
      platform::PublishHook(target.library.c_str(), target.function.c_str(), 1, 0);
    } else {
      platform::PublishHook(target.library.c_str(), target.function.c_str(), 1, errno);
      LogFailure("hook", target);
    }
  }
  if (any) ++hook_rounds;
  return any;
}

void unhook_by_plt() {
  for (const Target& target : CurrentTargets()) {
    if (lumora::plthooks::unhook_plt_method(target.library.c_str(), target.function.c_str(),
                                            target.proxy) != 0) {
      platform::PublishHook(target.library.c_str(), target.function.c_str(), -1, errno);
      LogFailure("unhook", target);
    } else {
      platform::PublishHook(target.library.c_str(), target.function.c_str(), -1, 0);
    }
  }
  is_plt_hook.store(false);
  if (hook_rounds > 0) --hook_rounds;
}

void unhook_all_by_plt() {
  while (hook_rounds > 0) unhook_by_plt();
}
