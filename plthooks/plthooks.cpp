// Hooking and unhooking: from a library's and a function's name to slots, and the writes to them.
//
// The hook lock is the outermost of the engine's; the registry's, the trampolines' and the patch
// lock are each taken and released under it, never two of them at once.
#include "plthooks/plthooks.h"

#include <android-base/logging.h>
#include <dlfcn.h>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ios>
#include <new>
#include <vector>

#include "linker/rwlock.h"
#include "linker/sharedlibs.h"
#include "platform/page_protection.h"
#include "plthooks/hooks.h"
#include "plthooks/trampoline.h"
#include "sigmux/sig_safe_write.h"
#include "sigmux/sigmux.h"

namespace lumora::plthooks {

namespace {

using linker::elfSharedLibData;
using linker::WriteLock;

/// What a patch returns when the page cannot be made writable.
constexpr int kPageNotWritable = 5;

pthread_rwlock_t hook_lock = PTHREAD_RWLOCK_INITIALIZER;
pthread_rwlock_t patch_lock = PTHREAD_RWLOCK_INITIALIZER;

/// The address of `symbol` of `library`.
std::uintptr_t address_of(const elfSharedLibData& library, const Elf64_Sym* symbol) {
  return static_cast<std::uintptr_t>(symbol->st_value + library.load_bias_);
}

/// The address of the function in the library that defines it; null when there is no such.
void* resolve_target(const plt_hook_spec& spec) {
  const elfSharedLibData definer = linker::sharedLib(spec.lib_name);
  const Elf64_Sym* symbol = definer ? definer.find_symbol_by_name(spec.function_name) : nullptr;
  return symbol != nullptr ? reinterpret_cast<void*>(address_of(definer, symbol)) : nullptr;
}

/// The slots through which `library` calls the function, in the order of its relocations. Keeps the
/// address in the request when it looked that up.
std::vector<void**> find_slots(const elfSharedLibData& library, plt_hook_spec& spec) {
  if (spec.target == nullptr && spec.lib_name != nullptr) spec.target = resolve_target(spec);
  if (spec.target != nullptr) return library.get_plt_relocations(spec.target);
  const Elf64_Sym* symbol = library.find_symbol_by_name(spec.function_name);
  return symbol != nullptr ? library.get_plt_relocations(symbol) : std::vector<void**>();
}

/// Whether `name`, the symbol nearest to `content` in the library `file`, is exactly there: then it
/// is another name of what the slot was resolved to.
bool is_alias(const char* file, const char* name, const void* content) {
  if (name == nullptr) return false;
  const elfSharedLibData library = linker::sharedLib(file);
  const Elf64_Sym* symbol = library ? library.find_symbol_by_name(name) : nullptr;
  return symbol != nullptr &&
         address_of(library, symbol) == reinterpret_cast<std::uintptr_t>(content);
}

/// Whether a slot that is not hooked yet is one, and leads to the function of this name.
bool leads_to(void** slot, const char* function_name) {
  Dl_info info = {};
  if (dladdr(slot, &info) == 0) {
    LOG(ERROR) << "GOT entry not part of a DSO: 0x" << std::hex
               << reinterpret_cast<std::uintptr_t>(slot);
    return false;
  }
  const void* content = *slot;
  if (dladdr(content, &info) == 0) {
    LOG(ERROR) << "GOT entry does not point to a DSO:" << std::hex
               << reinterpret_cast<std::uintptr_t>(content);
    return false;
  }
  const char* nearest = info.dli_sname;
  if (nearest != nullptr && std::strcmp(nearest, function_name) == 0) return true;
  if (is_alias(info.dli_fname, nearest, content)) return true;
  LOG(ERROR) << "GOT entry does not point to symbol we need: "
             << (nearest != nullptr ? nearest : "(null)") << " vs " << function_name;
  return false;
}

/// Hooks one slot. Returns 0, or another value when it cannot be. Under the hook lock.
int patch_slot(void** slot, const plt_hook_spec& spec) {
  hooks::HookInfo info = {0, slot, spec.hook_fn, *slot, spec.no_trampoline};
  if (hooks::is_hooked(reinterpret_cast<std::uintptr_t>(slot))) {
    // The slot leads to its trampoline already, which runs the newest hook from now on.
    if (spec.no_trampoline) return 1;
    return hooks::add(info) == hooks::HOOK_APPENDED ? 0 : 1;
  }
  if (hooks::add(info) != hooks::HOOK_NEW) return 1;
  void* value = spec.no_trampoline ? spec.hook_fn : create_trampoline(info.out_id);
  if (value == nullptr) return 1;
  return unsafe_patch_relocation_address(slot, value);
}

/// Hooks what one spec names. Returns the number of failures.
int hook_spec(const elfSharedLibData& library, plt_hook_spec& spec) {
  if (spec.hook_fn == nullptr || spec.function_name == nullptr) return 1;
  int failures = 0;
  for (void** slot : find_slots(library, spec)) {
    // From the look at the slot to the write: another thread may be hooking or unhooking it.
    const WriteLock lock(&hook_lock);
    const bool known = hooks::is_hooked(reinterpret_cast<std::uintptr_t>(slot));
    if ((known || leads_to(slot, spec.function_name)) && patch_slot(slot, spec) == 0) {
      ++spec.hook_result;
    } else {
      ++failures;
    }
  }
  return failures;
}

/// Puts the original function back into a slot and forgets the slot. Under the hook lock.
void restore_slot(void** slot, void* original) {
  if (unsafe_patch_relocation_address(slot, original) != 0) {
    LOG(FATAL) << "Unable to unhook GOT slot";
  }
  hooks::HookInfo last = {0, slot, original, nullptr, false};
  if (hooks::remove(last) != hooks::HOOK_REMOVED_FULLY) {
    LOG(FATAL) << "GOT slot modified while we were working on it";
  }
}

/// Takes the spec's hook off one slot. Returns the number of failures. Under the hook lock.
int unhook_slot(void** slot, plt_hook_spec& spec) {
  hooks::HookInfo info = {0, slot, spec.hook_fn, nullptr, false};
  switch (hooks::remove(info)) {
    case hooks::HOOK_UNKNOWN:
      return 0;
    case hooks::HOOK_REMOVED_STILL_HOOKED:
      ++spec.hook_result;
      return 0;
    case hooks::HOOK_REMOVED_TRIVIAL:
      restore_slot(slot, info.previous_function);
      ++spec.hook_result;
      return 0;
    default:
      return 1;
  }
}

int unhook_spec(const elfSharedLibData& library, plt_hook_spec& spec) {
  if (spec.function_name == nullptr) return 1;
  const Elf64_Sym* symbol = library.find_symbol_by_name(spec.function_name);
  if (symbol == nullptr) return 0;
  int failures = 0;
  for (void** slot : library.get_plt_relocations(symbol)) failures += unhook_slot(slot, spec);
  return failures;
}

/// Runs `action` for each spec; one that runs out of memory has failed.
template <typename Action>
int for_each_spec(const char* libname, plt_hook_spec* specs, std::size_t count, Action action) {
  int failures = 0;
  try {
    const elfSharedLibData found = linker::sharedLib(libname);
    // A library that is unknown, or gone, imports nothing.
    const elfSharedLibData library = found ? found : elfSharedLibData();
    for (std::size_t at = 0; at < count; ++at) failures += action(library, specs[at]);
  } catch (const std::bad_alloc&) {
    LOG(ERROR) << "out of memory while hooking";
    ++failures;
  }
  return failures;
}

}  // namespace

int plthooks_initialize() {
  if (linker::linker_initialize() != 0) return 1;
  if (sigmux_init(SIGSEGV) != 0) return 1;
  return sigmux_init(SIGBUS) != 0 ? 1 : 0;
}

int hook_plt_method(const char* libname, const char* name, void* hook) {
  plt_hook_spec spec = {name, nullptr, hook, false, 0, nullptr};
  const int failures = hook_single_lib(libname, &spec, 1);
  return failures == 0 && spec.hook_result == 1 ? 0 : 1;
}

int unhook_plt_method(const char* libname, const char* name, void* hook) {
  plt_hook_spec spec = {name, nullptr, hook, false, 0, nullptr};
  const int failures = unhook_single_lib(libname, &spec, 1);
  return failures == 0 && spec.hook_result == 1 ? 0 : 1;
}

int hook_single_lib(const char* libname, plt_hook_spec* specs, std::size_t count) {
  return for_each_spec(libname, specs, count, hook_spec);
}

int unhook_single_lib(const char* libname, plt_hook_spec* specs, std::size_t count) {
  const WriteLock lock(&hook_lock);
  return for_each_spec(libname, specs, count, unhook_spec);
}

int patch_relocation_address_for_hook(void** slot, plt_hook_spec* spec) {
  const WriteLock lock(&hook_lock);
  return patch_slot(slot, *spec);
}

int unsafe_patch_relocation_address(void** slot, void* value) {
  const WriteLock lock(&patch_lock);
  const auto page_bytes = static_cast<std::size_t>(getpagesize());
  const std::uintptr_t base = reinterpret_cast<std::uintptr_t>(slot) & ~(page_bytes - 1);
  auto* page = reinterpret_cast<void*>(base);
  const int protection = platform::ProtectionAfterWrite(page, page_bytes);
  if (mprotect(page, page_bytes, PROT_READ | PROT_WRITE) != 0) {
    LOG(ERROR) << "unsafe_patch_relocation_address mprotect";
    return kPageNotWritable;
  }
  const int result = sig_safe_write(slot, reinterpret_cast<std::intptr_t>(value));
  if (mprotect(page, page_bytes, protection) != 0) abort();
  return result;
}

}  // namespace lumora::plthooks
