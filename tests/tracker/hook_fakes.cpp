#include "hook_fakes.h"

#include <sys/system_properties.h>

#include <cerrno>
#include <cstring>

#include "fakes.h"
#include "linker/sharedlibs.h"
#include "plthooks/plthooks.h"
#include "plthooks/trampoline.h"
#include "tracker/proxies.h"

namespace fake {

HookSetup& Hooks() {
  static HookSetup setup;
  return setup;
}

namespace {

const char* ProxyName(const void* proxy) {
  if (proxy == reinterpret_cast<void*>(shared_proxy_mmap64)) return "mmap64";
  if (proxy == reinterpret_cast<void*>(shared_proxy___mmap2)) return "__mmap2";
  if (proxy == reinterpret_cast<void*>(shared_proxy_mremap)) return "mremap";
  if (proxy == reinterpret_cast<void*>(shared_proxy_munmap)) return "munmap";
  if (proxy == reinterpret_cast<void*>(shared_proxy_ion_ioctl)) return "ion";
  return proxy == reinterpret_cast<void*>(shared_proxy_gpu_ioctl) ? "gpu" : "?";
}

int Answer(const char* verb, const char* library, const char* name, const void* proxy) {
  AddEvent(std::string(verb) + "(" + library + "," + name + "," + ProxyName(proxy) + ")");
  if (Hooks().refused.count(name) == 0) return 0;
  errno = ENOENT;
  return 1;
}

}  // namespace
}  // namespace fake

void lumora::linker::linker_set_enabled(int enabled) {
  fake::AddEvent("enable(" + std::to_string(enabled) + ")");
}

namespace lumora::plthooks {

int plthooks_initialize() {
  if (!fake::Hooks().initialize_fails) return 0;
  errno = EPERM;
  return 1;
}
int hook_plt_method(const char* libname, const char* name, void* hook) {
  return fake::Answer("hook", libname, name, hook);
}
int unhook_plt_method(const char* libname, const char* name, void* hook) {
  return fake::Answer("unhook", libname, name, hook);
}
void prepare_hook_stack() {}
void* get_previous_from_hook(void* /*hook*/) {
  return fake::Hooks().previous;
}

}  // namespace lumora::plthooks

int __system_property_get(const char* name, char* value) {
  const bool libraries = std::strcmp(name, "persist.sys.memleak.hookLib") == 0;
  const std::string& text = libraries ? fake::Hooks().libraries : fake::Hooks().functions;
  value[text.copy(value, PROP_VALUE_MAX - 1)] = '\0';
  return static_cast<int>(text.size());
}
