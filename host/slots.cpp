// SPDX-License-Identifier: Apache-2.0
// Scans the relocations of all objects under the dynamic linker's lock.
//
// The lock keeps other threads out of dlopen. An object that dlopen has not relocated completely
// must not be changed, because the dynamic linker still writes to its pages and then protects them.
// dl_iterate_phdr does not take this lock. dlsym does, and calls the resolver of an indirect
// function under it. So the scan is such a resolver, and dlsym starts it.
#include "host/slots.h"

#include <dlfcn.h>
#include <errno.h>
#include <link.h>
#include <stdint.h>
#include <string.h>
#include <sys/auxv.h>

#include <atomic>

#include "host/exports.h"
#include "host/next_function.h"
#include "host/slot_writer.h"
#include "linker/import_slots.h"
#include "protocol/protocol.h"

namespace host {
namespace {

using lumora::linker::ImportSlots;
using Slot = ImportSlots::Slot;
using Type = ImportSlots::Type;

struct Replacement {
  const char* name;  // null if the entry is unused
  void* ours;        // the loader's function
  void* next;        // the function to which `ours` forwards; null if there is none
  void* address;     // the result of dlsym in the program; may be an entry of the program's PLT
  bool allocates;
};

// A hash table with open addressing. Filled once, by FindReplacedSlots.
constexpr size_t kReplacements = 256;
Replacement replacements[kReplacements];

struct Match {
  Slot slot;
  const Replacement* found;
};
// The slots of one object that are to be replaced. Guarded by the dynamic linker's lock.
constexpr size_t kMatches = 4096;
Match matches[kMatches];

// Whether the next scan replaces slots or restores them.
std::atomic<bool> replacing{false};
// The result of the latest scan. Guarded by the dynamic linker's lock.
SlotScan latest;
// The dynamic linker's count of loaded objects at the latest scan.
std::atomic<unsigned long long> scanned_adds{0};
// The handle of this library; null before FindReplacedSlots.
void* this_loader = nullptr;

size_t Hash(const char* name) {
  uint32_t hash = 5381;
  for (; *name != '\0'; ++name) hash = hash * 33 + static_cast<unsigned char>(*name);
  return hash % kReplacements;
}

/// Returns the entry of `name`, or the unused entry where it would be added.
Replacement& Find(const char* name) {
  size_t i = Hash(name);
  while (replacements[i].name != nullptr && strcmp(replacements[i].name, name) != 0) {
    i = (i + 1) % kReplacements;
  }
  return replacements[i];
}

bool Allocates(const char* name) {
  return strstr(name, "alloc") != nullptr || strcmp(name, "free") == 0 ||
         strstr(name, "memalign") != nullptr || strncmp(name, "_Zn", 3) == 0 ||
         strncmp(name, "_Zd", 3) == 0;
}

void Add(const char* name, void* ours) {
  if (Find(name).name != nullptr) return;
  Find(name) = {name, ours, NextDefinition(name), dlsym(RTLD_DEFAULT, name), Allocates(name)};
}

const char* Basename(const char* path) {
  const char* const slash = strrchr(path, '/');
  return slash != nullptr ? slash + 1 : path;
}

/// Returns whether the object's slots are never replaced: the dynamic linker, and all copies of the
/// loader and of the tracker.
bool IsExempt(const dl_phdr_info& info) {
  if (info.dlpi_addr != 0 && info.dlpi_addr == getauxval(AT_BASE)) return true;
  const char* const name = Basename(info.dlpi_name != nullptr ? info.dlpi_name : "");
  return strcmp(name, protocol::kPreloadLibrary) == 0 ||
         strcmp(name, protocol::kTrackerLibrary) == 0;
}

bool InOtherLoader(const void* function) {
  Dl_info info;
  return dladdr(function, &info) != 0 && info.dli_fname != nullptr &&
         strcmp(Basename(info.dli_fname), protocol::kPreloadLibrary) == 0;
}

/// The slots of one object.
class Object {
 public:
  explicit Object(const dl_phdr_info& info) : info_(info), slots_(info), writer_(slots_) {}

  void Replace() {
    ForEachMatch([&] { ReplaceMatches(); });
  }

  /// As Replace, only for the slots that the dynamic linker may bind at their first call.
  void ReplaceCalls() {
    slots_.ForEachCall([&](const Slot& slot) {
      const Replacement& found = Find(slot.name);
      if (found.next != nullptr && IsWord(slot)) Change(slot.place, found.next, found.ours);
    });
  }

  void Restore() {
    ForEachMatch([&] {
      for (size_t i = 0; i < count_; ++i) {
        const Match& match = matches[i];
        Change(match.slot.place, match.found->ours, match.found->next);
      }
    });
  }

  /// Replaces one function.
  void Replace(const Replacement& replacement) {
    slots_.ForEachSlot([&](const Slot& slot) {
      if (strcmp(slot.name, replacement.name) == 0 && IsWord(slot)) {
        Change(slot.place, replacement.next, replacement.ours);
      }
    });
  }

 private:
  bool IsWord(const Slot& slot) const {
    return slot.type != Type::kCopy && slots_.Contains(slot.place, sizeof(void*));
  }

  /// Returns whether the slot is not bound yet: it still points into its own object.
  bool IsUnbound(const Slot& slot, const void* value) const {
    return slot.type == Type::kCall && slot.symbol->st_shndx == SHN_UNDEF &&
           slots_.ContainsCode(value);
  }

  /// Collects the slots of the functions to replace in `matches` and calls `apply`, more than once
  /// if `matches` becomes full.
  template <typename Apply>
  void ForEachMatch(Apply apply) {
    slots_.ForEachSlot([&](const Slot& slot) {
      if (slot.type == Type::kCopy) {
        AddCopiedWords(slot);
        return;
      }
      const Replacement& found = Find(slot.name);
      if (found.next == nullptr || !IsWord(slot)) return;
      if (count_ == kMatches) apply(), count_ = 0;
      matches[count_++] = {slot, &found};
    });
    apply();
    count_ = 0;
  }

  void ReplaceMatches() {
    // If a bound slot of the object holds another allocator, the object's unbound slots will be
    // bound to that allocator. They stay unchanged.
    bool other_allocator = false;
    for (size_t i = 0; i < count_; ++i) {
      const auto& [slot, found] = matches[i];
      void* const value = writer_.Read(slot.place);
      if (!found->allocates || value == found->next || value == found->address ||
          value == found->ours || value == nullptr || IsUnbound(slot, value)) {
        continue;
      }
      other_allocator = true;
      if (strcmp(slot.name, "malloc") == 0 && InOtherLoader(value)) latest.other_loader = true;
    }
    for (size_t i = 0; i < count_; ++i) {
      const auto& [slot, found] = matches[i];
      void* const value = writer_.Read(slot.place);
      const bool may_bind = IsUnbound(slot, value) && !(other_allocator && found->allocates);
      if (value == found->next || may_bind) Change(slot.place, value, found->ours);
    }
  }

  /// Adds the words of a copied variable that hold a function to replace, such as libxml2's
  /// xmlMalloc.
  void AddCopiedWords(const Slot& slot) {
    if (!slots_.Contains(slot.place, slot.symbol->st_size)) return;
    for (size_t i = 0; i < slot.symbol->st_size / sizeof(void*); ++i) {
      void* const value = writer_.Read(slot.place + i);
      if (value == nullptr) continue;
      for (const Replacement& one : replacements) {
        if (one.next == nullptr || (one.next != value && one.ours != value)) continue;
        if (count_ < kMatches)
          matches[count_++] = {{Type::kData, slot.symbol, one.name, slot.place + i}, &one};
        break;
      }
    }
  }

  void Change(void** place, void* expected, void* value) {
    switch (writer_.Change(place, expected, value)) {
      case SlotWriter::kChanged:
        ++latest.changed;
        break;
      case SlotWriter::kOtherValue:
        break;
      case SlotWriter::kUnwritable:
        if (latest.unwritable++ == 0) {
          strncpy(latest.object, info_.dlpi_name != nullptr ? info_.dlpi_name : "",
                  sizeof latest.object - 1);
        }
        break;
    }
  }

  const dl_phdr_info& info_;
  const ImportSlots slots_;
  SlotWriter writer_;
  size_t count_ = 0;  // used entries of `matches`
};

/// Callback of dl_iterate_phdr. `data` points to the member function of Object to call.
int ScanObject(dl_phdr_info* info, size_t /*size*/, void* data) {
  scanned_adds.store(info->dlpi_adds);
  if (IsExempt(*info)) return 0;
  Object object(*info);
  (object.**static_cast<void (Object::**)()>(data))();
  return 0;
}

void ForAllObjects(void (Object::*function)()) {
  dl_iterate_phdr(ScanObject, &function);
}

void NoFunction() {}

/// The scan: the resolver of memleak_scan. Runs under the dynamic linker's lock.
extern "C" void (*memleak_scan_resolver())() {
  latest = {};
  if (replacing.load()) {
    ForAllObjects(&Object::Replace);
    // During the first pass another thread may have bound a slot and overwritten the replacement.
    ForAllObjects(&Object::ReplaceCalls);
  } else {
    ForAllObjects(&Object::Restore);
  }
  return NoFunction;
}

SlotScan Scan() {
  const int saved_errno = errno;
  [[maybe_unused]] void* const scanned = dlsym(this_loader, "memleak_scan");
  const SlotScan result = latest;
  errno = saved_errno;
  return result;
}

struct ObjectSearch {
  const void* code;
  dl_phdr_info found;
};

int CopyObject(dl_phdr_info* info, size_t /*size*/, void* data) {
  auto& search = *static_cast<ObjectSearch*>(data);
  if (!ImportSlots(*info).ContainsCode(search.code)) return 0;
  search.found = *info;
  return 1;
}

/// Returns the object that contains `code`. Callers look up functions after the walk, not in its
/// callback: dl_iterate_phdr holds a lock, under which dlsym would take the lock of dlopen. A
/// thread in dlopen takes these two locks in the opposite order.
dl_phdr_info FindObject(const void* code) {
  ObjectSearch search{code, {}};
  dl_iterate_phdr(CopyObject, &search);
  return search.found;
}

/// Replaces dlsym in the tracker, which looks up the loader's variables with RTLD_DEFAULT: an
/// attached loader is not in the global search order.
void* DlsymOfTracker(void* handle, const char* name) {
  return dlsym(handle == RTLD_DEFAULT && strncmp(name, "memleak_", 8) == 0 ? this_loader : handle,
               name);
}

int ReadAdds(dl_phdr_info* info, size_t /*size*/, void* adds) {
  *static_cast<unsigned long long*>(adds) = info->dlpi_adds;
  return 1;
}

}  // namespace

// Every lookup of this function by dlsym is a scan.
MEMLEAK_EXPORT void memleak_scan() __attribute__((ifunc("memleak_scan_resolver")));

void FindReplacedSlots() {
  if (this_loader != nullptr) return;
  const dl_phdr_info own = FindObject(reinterpret_cast<const void*>(&FindReplacedSlots));
  const ImportSlots object(own);
  object.ForEachFunction([&](const Elf64_Sym& symbol, const char* name) {
    if (strncmp(name, "memleak_", 8) != 0) Add(name, object.AddressOf(symbol));
  });
  Dl_info info;
  dladdr1(&this_loader, &info, &this_loader, RTLD_DL_LINKMAP);
}

void AddReplacedSlot(const char* name, void* function) {
  Add(name, function);
}

void ReplaceTrackerSlots(const void* tracker) {
  const dl_phdr_info object = FindObject(tracker);
  Object(object).Replace(
      {"dlsym", reinterpret_cast<void*>(DlsymOfTracker), NextDefinition("dlsym"), nullptr, false});
  Object(object).Replace();
}

SlotScan ReplaceSlots() {
  replacing.store(true);
  return Scan();
}

void ReplaceNewSlots() {
  if (!replacing.load()) return;
  unsigned long long adds = 0;
  dl_iterate_phdr(ReadAdds, &adds);
  if (adds != scanned_adds.load()) Scan();
}

void RestoreSlots() {
  replacing.store(false);
  Scan();
}

}  // namespace host
