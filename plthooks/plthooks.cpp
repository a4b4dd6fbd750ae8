// Hooking and unhooking: from a library's and a function's name to slots, and the writes to them.
//
// The hook lock is the outermost of the engine's; the registry's, the trampolines' and the patch
// lock are each taken and released under it, never two of them at once. The loader is asked before
// any of them is taken: a library's constructor may hook, and holds the loader's lock meanwhile.
// Under the hook lock a slot that has changed since it was looked at is looked at again.
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
#include "platform/page_protection.h"
#include "plthooks/hooks.h"
#include "plthooks/trampoline.h"
#include "protocol/protocol.h"
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

/// For a failure: sets errno and returns 1.
int fail(int error) {
  errno = error;
  return 1;
}

/// Logs a lack of memory, without the platform's base logging, which allocates; then as fail.
int out_of_memory() {
  async_safe_format_log(ANDROID_LOG_ERROR, protocol::kLogTag, "out of memory while hooking");
  return fail(ENOMEM);
}

/// The failures of one call, and errno of the last one.
struct Tally {
  int failures = 0;
  int error = 0;

  void add(int result) {
    if (result == 0) return;
    ++failures;
    error = errno;
  }
  /// The number of failures, with errno set if there are any: letting libraries go may change it.
  int finish() const {
    if (failures != 0) errno = error;
    return failures;
  }
};

// ---- looking: none of the engine's locks is held ----

/// The address of `symbol` of `library`.
std::uintptr_t address_of(const elfSharedLibData& library, const Elf64_Sym* symbol) {
  return static_cast<std::uintptr_t>(symbol->st_value + library.load_bias_);
}

/// The address of the function in the library that defines it; null when there is no such.
void* resolve_target(const plt_hook_spec& spec) {
  const linker::HeldLibrary definer = linker::hold_shared_lib(spec.lib_name);
  const Elf64_Sym* symbol = definer.library.find_symbol_by_name(spec.function_name);
  return symbol != nullptr ? reinterpret_cast<void*>(address_of(definer.library, symbol)) : nullptr;
}

/// A library that has no slots, or is gone, imports nothing.
elfSharedLibData usable(const elfSharedLibData& library) {
  return library ? library : elfSharedLibData();
}

/// The slots through which `library` calls the function, in the order of its relocations. Keeps the
/// address in the request when it looked that up.
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

/// Whether `name`, the symbol nearest to `content` in the library `file`, is exactly there: then it
/// is another name of what the slot was resolved to.
bool is_alias(const char* file, const char* name, const void* content) {
  if (name == nullptr) return false;
  const linker::HeldLibrary held = linker::hold_shared_lib(file);
  const Elf64_Sym* symbol = held.library.find_symbol_by_name(name);
  return symbol != nullptr &&
         address_of(held.library, symbol) == reinterpret_cast<std::uintptr_t>(content);
}

/// Where a slot that is not hooked leads, and whether that is the function that was asked for.
class Look {
 public:
  Look(void** slot, void* content, const char* function_name)
      : slot_(slot), content_(content), function_name_(function_name) {
    Dl_info info = {};
    if (dladdr(slot, &info) == 0) {
      found_ = kNoSlot;
      return;
    }
    // The names that the loader gives are the library's.
    if (!linker::hold_library_at(content, hold_) || dladdr(content, &info) == 0) {
      found_ = kNoLibrary;
      return;
    }
    nearest_ = info.dli_sname;
    const bool same = nearest_ != nullptr && std::strcmp(nearest_, function_name) == 0;
    found_ = same || is_alias(info.dli_fname, nearest_, content) ? kFunction : kOther;
  }

  bool leads_to_function() const { return found_ == kFunction; }

  /// Says why not.
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

/// The page of a slot, and how it is to be left. Made before any lock is taken.
struct Page {
  explicit Page(void** slot) : bytes(static_cast<std::size_t>(getpagesize())) {
    base = reinterpret_cast<void*>(reinterpret_cast<std::uintptr_t>(slot) & ~(bytes - 1));
    protection = platform::ProtectionAfterWrite(base, bytes);
  }

  std::size_t bytes;
  void* base;
  int protection;
};

/// Returns as unsafe_patch_relocation_address.
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

/// Carries out a request to hook a slot. Under the hook lock. Returns 0, or another value with
/// errno.
int patch_slot(hooks::HookInfo& info, const Page& page) {
  void** slot = info.got_address;
  // A direct hook is never stacked.
  if (info.no_trampoline && is_hooked(slot)) return fail(EBUSY);
  // Before there is a record: that would count as hooked.
  if (!info.no_trampoline && !can_create_trampolines()) return fail(EAGAIN);
  switch (hooks::add(info)) {
    case hooks::HOOK_NEW:
      break;
    case hooks::HOOK_APPENDED:
      // Its trampoline runs the newest hook from now on. Intentional: a slot that could not be
      // written when its record was made is written now, or it would only seem to be hooked.
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

/// Hooks one slot of a library. Returns 0, or another value with errno.
int hook_slot(void** slot, const plt_hook_spec& spec, const std::shared_ptr<void>& library) {
  const Page page(slot);
  while (true) {
    // The slot before the registry: a slot that leads to a trampoline is on record for longer.
    void* const content = content_of(slot);
    const bool known = is_hooked(slot);
    const auto changed = [&] { return content_of(slot) != content || is_hooked(slot) != known; };
    if (!known) {
      const Look look(slot, content, spec.function_name);
      if (!look.leads_to_function()) {
        if (changed()) continue;
        look.log();
        return fail(ENXIO);
      }
    }
    // Outlives the lock, as all that may be the last to hold a library.
    hooks::HookInfo info = {0, slot, spec.hook_fn, content, spec.no_trampoline, library};
    const WriteLock lock(&hook_lock);
    if (!changed()) return patch_slot(info, page);
  }
}

/// Hooks what one spec names.
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

/// Puts the original function back into a slot and forgets the slot. Under the hook lock. Returns
/// what kept its library loaded, for when the lock is free again.
std::shared_ptr<void> restore_slot(void** slot, void* original, const Page& page) {
  // A slot that could not be hooked still holds it.
  if (content_of(slot) != original && write_slot(slot, original, page) != 0) {
    LOG(FATAL) << "Unable to unhook GOT slot";
  }
  hooks::HookInfo last = {0, slot, original, nullptr, false};
  if (hooks::remove(last) != hooks::HOOK_REMOVED_FULLY) {
    LOG(FATAL) << "GOT slot modified while we were working on it";
  }
  return std::move(last.library);
}

/// Takes the spec's hook off one slot. Returns 0, or another value with errno. Allocates nothing.
int unhook_slot(void** slot, plt_hook_spec& spec) {
  const Page page(slot);
  std::shared_ptr<void> library;
  hooks::HookInfo info = {0, slot, spec.hook_fn, nullptr, false};
  // For each slot, and not for the call: looking at the next one's page asks the loader.
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

/// Nothing here allocates but the platform's log lines.
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

/// Of a method's one spec: 0 when exactly one slot was meant and none failed, else 1 with errno.
int one_slot(int failures, std::uint32_t slots) {
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
  return one_slot(failures, spec.hook_result);
}

int unhook_plt_method(const char* libname, const char* name, void* hook) {
  plt_hook_spec spec = {name, nullptr, hook, false, 0, nullptr};
  const int failures = unhook_single_lib(libname, &spec, 1);
  return one_slot(failures, spec.hook_result);
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
