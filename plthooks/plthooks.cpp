// SPDX-License-Identifier: Apache-2.0
// Hooking and unhooking: finds the slots of a function in a library, and writes them.
//
// Lock order: the hook lock is the engine's outermost lock. The registry's, the trampolines' and
// the patch lock are each taken and released under it, never two of them at once. The loader is
// called before any of these locks is taken: a library's constructor may hook, and it runs under
// the loader's lock. So a slot is inspected without a lock, and inspected again if it has changed
// by the time the hook lock is held.
#include "plthooks/plthooks.h"

#include <android-base/logging.h>
#include <async_safe/log.h>
#include <dlfcn.h>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ios>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "linker/library_hold.h"
#include "linker/rwlock.h"
#include "linker/sharedlibs.h"
#include "platform/policies.h"
#include "plthooks/hooks.h"
#include "plthooks/trampoline.h"
#include "protocol/protocol.h"
#include "sigmux/sig_safe_write.h"
#include "sigmux/sigmux.h"

namespace lumora::plthooks {

namespace {

using linker::elfSharedLibData;
using linker::WriteLock;

/// Result of a slot write if the page cannot be made writable.
constexpr int kPageNotWritable = 5;

pthread_rwlock_t hook_lock = PTHREAD_RWLOCK_INITIALIZER;
pthread_rwlock_t patch_lock = PTHREAD_RWLOCK_INITIALIZER;

/// Sets errno and returns 1.
int fail(int error) {
  errno = error;
  return 1;
}

/// Logs a lack of memory, sets errno and returns 1. Does not use base logging, which allocates.
int out_of_memory() {
  async_safe_format_log(ANDROID_LOG_ERROR, protocol::kLogTag, "out of memory while hooking");
  return fail(ENOMEM);
}

/// Counts the failures of one call and keeps the errno of the last one.
struct Tally {
  int failures = 0;
  int error = 0;

  void add(int result) {
    if (result == 0) return;
    ++failures;
    error = errno;
  }
  /// Returns the number of failures. Sets errno if there are any: dropping references to libraries
  /// may have changed it.
  int finish() const {
    if (failures != 0) errno = error;
    return failures;
  }
};

// ---- inspection: none of the engine's locks is held ----

std::uintptr_t address_of(const elfSharedLibData& library, const Elf64_Sym* symbol) {
  return static_cast<std::uintptr_t>(symbol->st_value + library.load_bias_);
}

/// Returns the address of the function in the library that defines it; null if there is none.
void* resolve_target(const plt_hook_spec& spec) {
  const linker::HeldLibrary definer = linker::hold_shared_lib(spec.lib_name);
  const Elf64_Sym* symbol = definer.library.find_symbol_by_name(spec.function_name);
  return symbol != nullptr ? reinterpret_cast<void*>(address_of(definer.library, symbol)) : nullptr;
}

/// Returns the empty record, which imports nothing, for a library that has no slots or is unloaded.
elfSharedLibData usable(const elfSharedLibData& library) {
  return library ? library : elfSharedLibData();
}

/// Returns the slots through which `library` calls the function, in relocation order. Caches a
/// resolved address in `spec.target`.
std::vector<void**> find_slots(const elfSharedLibData& library, plt_hook_spec& spec) {
  if (spec.target == nullptr && spec.lib_name != nullptr) spec.target = resolve_target(spec);
  if (spec.target != nullptr) return library.get_plt_relocations(spec.target);
  const Elf64_Sym* symbol = library.find_symbol_by_name(spec.function_name);
  return symbol != nullptr ? library.get_plt_relocations(symbol) : std::vector<void**>();
}

void* content_of(void** slot) {
  return __atomic_load_n(slot, __ATOMIC_ACQUIRE);
}

bool is_hooked(void** slot) {
  return hooks::is_hooked(reinterpret_cast<std::uintptr_t>(slot));
}

/// Whether the symbol `name` of the library `file` is exactly at `content`. Then it is another name
/// of the function that the slot points to.
bool is_alias(const char* file, const char* name, const void* content) {
  if (name == nullptr) return false;
  const linker::HeldLibrary held = linker::hold_shared_lib(file);
  const Elf64_Sym* symbol = held.library.find_symbol_by_name(name);
  return symbol != nullptr &&
         address_of(held.library, symbol) == reinterpret_cast<std::uintptr_t>(content);
}

/// Checks whether a slot that is not hooked points to the wanted function.
class SlotCheck {
 public:
  SlotCheck(void** slot, void* content, const char* function_name)
      : slot_(slot), content_(content), function_name_(function_name) {
    Dl_info info = {};
    if (dladdr(slot, &info) == 0) {
      found_ = kNoSlot;
      return;
    }
    // The reference keeps the library's strings valid, which dladdr returns.
    if (!linker::hold_library_at(content, hold_) || dladdr(content, &info) == 0) {
      found_ = kNoLibrary;
      return;
    }
    nearest_ = info.dli_sname;
    const bool same = nearest_ != nullptr && std::strcmp(nearest_, function_name) == 0;
    found_ = same || is_alias(info.dli_fname, nearest_, content) ? kFunction : kOther;
  }

  bool points_to_function() const { return found_ == kFunction; }

  /// Logs the reason if it does not.
  void log() const {
    switch (found_) {
      case kNoSlot:
        LOG(ERROR) << "GOT entry not part of a DSO: 0x" << std::hex
                   << reinterpret_cast<std::uintptr_t>(slot_);
        break;
      case kNoLibrary:
        LOG(ERROR) << "GOT entry does not point to a DSO:" << std::hex
                   << reinterpret_cast<std::uintptr_t>(content_);
        break;
      case kOther:
        LOG(ERROR) << "GOT entry does not point to symbol we need: "
                   << (nearest_ != nullptr ? nearest_ : "(null)") << " vs " << function_name_;
        break;
      case kFunction:
        break;
    }
  }

 private:
  enum { kNoSlot, kNoLibrary, kOther, kFunction } found_;
  void** slot_;
  void* content_;
  const char* function_name_;
  const char* nearest_ = nullptr;
  linker::LibraryHold hold_;
};

// ---- patching ----

/// The page of a slot and its protection after a write. Created before any lock is taken, since it
/// may call the loader.
struct Page {
  explicit Page(void** slot) : bytes(static_cast<std::size_t>(getpagesize())) {
    base = reinterpret_cast<void*>(reinterpret_cast<std::uintptr_t>(slot) & ~(bytes - 1));
    protection = platform::ProtectionAfterWrite(base, bytes);
  }

  std::size_t bytes;
  void* base;
  int protection;
};

/// Returns as unsafe_patch_relocation_address does.
int write_slot(void** slot, void* value, const Page& page) {
  const WriteLock lock(&patch_lock);
  if (mprotect(page.base, page.bytes, PROT_READ | PROT_WRITE) != 0) {
    LOG(ERROR) << "unsafe_patch_relocation_address mprotect";
    return kPageNotWritable;
  }
  const int result = sig_safe_write(slot, reinterpret_cast<std::intptr_t>(value));
  if (mprotect(page.base, page.bytes, page.protection) != 0) abort();
  return result;
}

/// Adds the hook of `info` to its slot. Under the hook lock. Returns 0, or non-zero with errno.
int patch_slot(hooks::HookInfo& info, const Page& page) {
  void** slot = info.got_address;
  // Intentional: a hook without a trampoline never shares a slot.
  if (info.no_trampoline && is_hooked(slot)) return fail(EBUSY);
  // Checked before a record exists: a slot with a record counts as hooked.
  if (!info.no_trampoline && !can_create_trampolines()) return fail(EAGAIN);
  switch (hooks::add(info)) {
    case hooks::HOOK_NEW:
      break;
    case hooks::HOOK_APPENDED:
      // The existing trampoline now runs the new hook first. Intentional: if the slot could not be
      // written when its record was created, it is written now.
      if (content_of(slot) != info.previous_function) return 0;
      break;
    case hooks::HOOK_NOT_CHAINABLE:
      return fail(EBUSY);
    default:
      return fail(EINVAL);
  }
  void* value = info.no_trampoline ? info.new_function : create_trampoline(info.out_id);
  return value != nullptr ? write_slot(slot, value, page) : 1;
}

/// Hooks one slot of a library. Returns 0, or non-zero with errno.
int hook_slot(void** slot, const plt_hook_spec& spec, const std::shared_ptr<void>& library) {
  const Page page(slot);
  while (true) {
    // Reads the slot before the registry: a slot that points to a trampoline has a record.
    void* const content = content_of(slot);
    const bool known = is_hooked(slot);
    const auto changed = [&] { return content_of(slot) != content || is_hooked(slot) != known; };
    if (!known) {
      const SlotCheck check(slot, content, spec.function_name);
      if (!check.points_to_function()) {
        if (changed()) continue;
        check.log();
        return fail(ENXIO);
      }
    }
    // Declared before the lock, so that a last reference to a library is dropped after the lock is
    // released.
    hooks::HookInfo info = {0, slot, spec.hook_fn, content, spec.no_trampoline, library};
    const WriteLock lock(&hook_lock);
    if (!changed()) return patch_slot(info, page);
  }
}

/// Hooks all slots of one spec.
void hook_spec(const elfSharedLibData& library, const std::shared_ptr<void>& hold,
               plt_hook_spec& spec, Tally& tally) {
  if (spec.hook_fn == nullptr || spec.function_name == nullptr) return tally.add(fail(EINVAL));
  for (void** slot : find_slots(library, spec)) {
    const int result = hook_slot(slot, spec, hold);
    tally.add(result);
    if (result == 0) ++spec.hook_result;
  }
}

Tally hook_specs(const char* libname, plt_hook_spec* specs, std::size_t count) {
  Tally tally;
  try {
    linker::HeldLibrary held = linker::hold_shared_lib(libname);
    const elfSharedLibData library = usable(held.library);
    std::shared_ptr<void> hold;
    for (std::size_t at = 0; at < count; ++at) {
      try {
        if (held.hold != nullptr) hold = std::move(held.hold);
        hook_spec(library, hold, specs[at], tally);
      } catch (const std::bad_alloc&) {
        tally.add(out_of_memory());
      }
    }
  } catch (const std::bad_alloc&) {
    tally.add(out_of_memory());
  }
  return tally;
}

/// Restores the original function in a slot and removes the slot's record. Under the hook lock.
/// Returns the reference to its library, which the caller drops after releasing the lock.
std::shared_ptr<void> restore_slot(void** slot, void* original, const Page& page) {
  // If the slot could not be written when it was hooked, it still has the original.
  if (content_of(slot) != original && write_slot(slot, original, page) != 0) {
    LOG(FATAL) << "Unable to unhook GOT slot";
  }
  hooks::HookInfo last = {0, slot, original, nullptr, false};
  if (hooks::remove(last) != hooks::HOOK_REMOVED_FULLY) {
    LOG(FATAL) << "GOT slot modified while we were working on it";
  }
  return std::move(last.library);
}

/// Removes the spec's hook from one slot. Returns 0, or non-zero with errno. Allocates nothing.
int unhook_slot(void** slot, plt_hook_spec& spec) {
  const Page page(slot);
  std::shared_ptr<void> library;
  hooks::HookInfo info = {0, slot, spec.hook_fn, nullptr, false};
  // Held per slot, not for the whole call: Page may call the loader.
  const WriteLock lock(&hook_lock);
  switch (hooks::remove(info)) {
    case hooks::HOOK_UNKNOWN:
      return 0;
    case hooks::HOOK_REMOVED_TRIVIAL:
      library = restore_slot(slot, info.previous_function, page);
      [[fallthrough]];
    case hooks::HOOK_REMOVED_STILL_HOOKED:
      ++spec.hook_result;
      return 0;
    default:
      return fail(EINVAL);
  }
}

/// Unhooks all slots of the specs. Allocates nothing, except in the platform's logging.
Tally unhook_specs(const char* libname, plt_hook_spec* specs, std::size_t count) try {
  Tally tally;
  const linker::HeldLibrary held = linker::hold_shared_lib(libname);
  const elfSharedLibData library = usable(held.library);
  for (std::size_t at = 0; at < count; ++at) {
    if (specs[at].function_name == nullptr) {
      tally.add(fail(EINVAL));
      continue;
    }
    const Elf64_Sym* symbol = library.find_symbol_by_name(specs[at].function_name);
    std::uint64_t index = 0;
    while (void** slot = library.next_plt_relocation(symbol, index)) {
      tally.add(unhook_slot(slot, specs[at]));
    }
  }
  return tally;
} catch (const std::bad_alloc&) {
  Tally tally;
  tally.add(out_of_memory());
  return tally;
}

/// Returns 0 if exactly one slot was changed and none failed, otherwise 1 with errno.
int require_one_slot(int failures, std::uint32_t slots) {
  if (failures != 0) return 1;
  if (slots == 1) return 0;
  return fail(slots == 0 ? ENOENT : EMLINK);
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
  return require_one_slot(failures, spec.hook_result);
}

int unhook_plt_method(const char* libname, const char* name, void* hook) {
  plt_hook_spec spec = {name, nullptr, hook, false, 0, nullptr};
  const int failures = unhook_single_lib(libname, &spec, 1);
  return require_one_slot(failures, spec.hook_result);
}

int hook_single_lib(const char* libname, plt_hook_spec* specs, std::size_t count) {
  return hook_specs(libname, specs, count).finish();
}

int unhook_single_lib(const char* libname, plt_hook_spec* specs, std::size_t count) {
  return unhook_specs(libname, specs, count).finish();
}

int patch_relocation_address_for_hook(void** slot, plt_hook_spec* spec) {
  try {
    linker::LibraryHold library;
    linker::hold_library_at(slot, library);
    const Page page(slot);
    hooks::HookInfo info = {
        0, slot, spec->hook_fn, nullptr, spec->no_trampoline, std::move(library)};
    const WriteLock lock(&hook_lock);
    info.previous_function = content_of(slot);
    return patch_slot(info, page);
  } catch (const std::bad_alloc&) {
    return fail(ENOMEM);
  }
}

int unsafe_patch_relocation_address(void** slot, void* value) {
  return write_slot(slot, value, Page(slot));
}

}  // namespace lumora::plthooks
