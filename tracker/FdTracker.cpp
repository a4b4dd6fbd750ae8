// SPDX-License-Identifier: Apache-2.0
// Loading and calling the tracker of file-descriptor leaks.
#include "tracker/FdTracker.h"

#include <dlfcn.h>

#include "async_safe/log.h"
#include "protocol/protocol.h"

namespace fd_tracker {

namespace {

using protocol::kLogTag;

/// Null before the first Load, and after a failed lookup or Unload.
void* handle = nullptr;

/// Returns the function `name` of the loaded library. If there is none, returns null, logs
/// `missing` and unloads the library.
void* Find(const char* name, const char* missing) {
  void* function = dlsym(handle, name);
  if (function != nullptr) return function;
  async_safe_format_log(ANDROID_LOG_ERROR, kLogTag, "%s", missing);
  Unload();
  return nullptr;
}

/// Calls a function without arguments. Returns false if there is none.
bool Call(const char* name, const char* not_loaded, const char* missing) {
  if (handle == nullptr) {
    async_safe_format_log(ANDROID_LOG_ERROR, kLogTag, "%s", not_loaded);
    return false;
  }
  auto* function = reinterpret_cast<void (*)()>(Find(name, missing));
  if (function == nullptr) return false;
  function();
  return true;
}

}  // namespace

bool Load() {
  if (handle != nullptr) return true;
  handle = dlopen("libfdtrack.so", RTLD_LAZY);
  if (handle != nullptr) return true;
  const char* reason = dlerror();
  // Intentional: the leading blank.
  async_safe_format_log(ANDROID_LOG_ERROR, kLogTag, " load libfdtrack failed: %s",
                        reason != nullptr ? reason : "");
  return false;
}

bool Enable(std::uint32_t backtrace_size, std::uint32_t backtrace_type) {
  auto* enable = reinterpret_cast<void (*)(std::uint32_t, std::uint32_t)>(
      Find("EnableFdHook", "no EnableFdHook found, fail to enable."));
  if (enable == nullptr) return false;
  enable(backtrace_size, backtrace_type);
  return true;
}

bool Disable() {
  return Call("DisableFdHook", "libfdtrack does not exist, fail to disable.",
              "no DisableFdHook found, fail to disable.");
}

bool Dump() {
  return Call("DumpFdleakStackToFile", "libfdtrack does not exist, fail to dump stack.",
              "no DumpFdleakStackToFile found, fail to dumpstack.");
}

void Unload() {
  if (handle != nullptr) dlclose(handle);
  handle = nullptr;
}

}  // namespace fd_tracker
