// SPDX-License-Identifier: Apache-2.0
// The list of loaded objects.
#include "records/linux/profile_objects.h"

#include <link.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <new>

#include "platform/linux/maps_lines.h"
#include "protocol/protocol.h"
#include "records/profile.h"
#include "records/set_mutex.h"

namespace profile {
namespace {

/// Limits of the list and of its names. Further objects are not entered, so frames in them have no
/// name. The memory is mapped once; only used pages take space.
constexpr std::size_t kMaxObjects = 8192;
constexpr std::size_t kNameBytes = kMaxObjects * 256;
/// Maximum length of a path in /proc/self/maps.
constexpr std::size_t kMaxPath = 4096;

Object* g_objects = nullptr;
char* g_names = nullptr;
std::size_t g_name_bytes = 0;
std::atomic<std::size_t> g_count{0};
/// Lock order: the dynamic linker's lock, which dl_iterate_phdr holds, before this lock.
SetMutex g_lock;
/// The dynamic linker's counts of loads and unloads at the last update.
std::uint64_t g_adds = 0;
std::uint64_t g_subs = 0;
std::uint32_t g_sweep = 0;

/// An update of the list.
struct Update {
  std::size_t count = 0;  ///< objects in the list, including new ones
  bool locked = false;
  bool changed = false;
};

bool Reserve() {
  if (g_objects != nullptr) return true;
  // If only the second mapping fails, the next attempt reuses the first.
  if (g_names == nullptr) g_names = static_cast<char*>(MapPages(kNameBytes));
  if (g_names == nullptr) return false;
  g_objects = static_cast<Object*>(MapPages(kMaxObjects * sizeof(Object)));
  return g_objects != nullptr;
}

/// Copies the build id in the notes of `header` to `object`.
void TakeBuildId(const dl_phdr_info& info, const ElfW(Phdr) & header, Object* object) {
  const auto* at = reinterpret_cast<const unsigned char*>(info.dlpi_addr + header.p_vaddr);
  std::size_t rest = header.p_memsz;
  const auto padded = [](std::size_t bytes) { return (bytes + 3) & ~std::size_t{3}; };
  while (rest >= sizeof(ElfW(Nhdr))) {
    ElfW(Nhdr) note;
    std::memcpy(&note, at, sizeof note);
    const std::size_t name = sizeof note;
    const std::size_t content = name + padded(note.n_namesz);
    const std::size_t end = content + padded(note.n_descsz);
    if (end > rest) return;
    if (note.n_type == NT_GNU_BUILD_ID && note.n_namesz == sizeof "GNU" &&
        std::memcmp(at + name, "GNU", sizeof "GNU") == 0 && note.n_descsz <= Object::kMaxBuildId) {
      object->build_id_bytes = note.n_descsz;
      std::memcpy(object->build_id, at + content, note.n_descsz);
      return;
    }
    at += end;
    rest -= end;
  }
}

/// Returns whether the segment is in memory: some tools write notes that are only in the file.
bool IsLoaded(const dl_phdr_info& info, const ElfW(Phdr) & segment) {
  for (std::size_t i = 0; i < info.dlpi_phnum; ++i) {
    const ElfW(Phdr)& load = info.dlpi_phdr[i];
    if (load.p_type == PT_LOAD && (load.p_flags & PF_R) != 0 && load.p_vaddr <= segment.p_vaddr &&
        segment.p_vaddr - load.p_vaddr <= load.p_memsz &&
        segment.p_memsz <= load.p_memsz - (segment.p_vaddr - load.p_vaddr)) {
      return true;
    }
  }
  return false;
}

/// Fills all fields of `object` except its path. The caller has zeroed it.
void Fill(const dl_phdr_info& info, Object* object) {
  object->bias = info.dlpi_addr;
  object->begin = ~std::uint64_t{0};
  for (std::size_t i = 0; i < info.dlpi_phnum; ++i) {
    const ElfW(Phdr)& header = info.dlpi_phdr[i];
    if (header.p_type == PT_NOTE && IsLoaded(info, header)) TakeBuildId(info, header, object);
    if (header.p_type != PT_LOAD) continue;
    const std::uint64_t begin = info.dlpi_addr + header.p_vaddr;
    object->begin = std::min(object->begin, begin);
    object->end = std::max(object->end, begin + header.p_memsz);
    if (object->segment_count == Object::kMaxSegments) continue;
    object->segments[object->segment_count++] = {begin, begin + header.p_memsz, header.p_offset};
  }
  const char* const build_id = reinterpret_cast<const char*>(object->build_id);
  object->identity =
      protocol::Digest({build_id, object->build_id_bytes}, protocol::Digest(info.dlpi_name));
}

/// Returns a copy of `name` that is never freed; "" if there is no room.
const char* KeepName(const char* name) {
  const std::size_t bytes = std::strlen(name) + 1;
  if (bytes > kNameBytes - g_name_bytes) return "";
  char* const kept = g_names + g_name_bytes;
  std::memcpy(kept, name, bytes);
  g_name_bytes += bytes;
  return kept;
}

/// Callback of dl_iterate_phdr. Ends the walk at once if no object was loaded or unloaded since the
/// last update.
int EnterObject(dl_phdr_info* info, std::size_t size, void* data) {
  Update& update = *static_cast<Update*>(data);
  if (!update.locked) {
    g_lock.lock();
    update.locked = true;
    const bool counted = size >= offsetof(dl_phdr_info, dlpi_subs) + sizeof info->dlpi_subs;
    if (!Reserve() || (counted && info->dlpi_adds == g_adds && info->dlpi_subs == g_subs)) return 1;
    update.changed = true;
    update.count = g_count.load(std::memory_order_relaxed);
    if (counted) g_adds = info->dlpi_adds;
    if (counted) g_subs = info->dlpi_subs;
    ++g_sweep;
  }
  if (update.count == kMaxObjects) return 0;
  Object& fresh = g_objects[update.count];
  new (&fresh) Object{};
  Fill(*info, &fresh);
  // The latest entry in this address range is either this object, perhaps loaded again, or an
  // object that was unloaded.
  for (std::size_t i = update.count; i-- > 0;) {
    Object& known = g_objects[i];
    if (known.begin >= fresh.end || known.end <= fresh.begin) continue;
    if (known.identity != fresh.identity || known.bias != fresh.bias || known.end != fresh.end)
      break;
    known.until.store(0, std::memory_order_relaxed);
    known.sweep = g_sweep;
    return 0;
  }
  fresh.sweep = g_sweep;
  fresh.path = KeepName(info->dlpi_name);
  ++update.count;
  return 0;
}

/// Replaces the names of the objects from index `first` on by the paths of their mappings, which
/// are absolute. Under an emulator these are paths of the host.
void TakeMappingNames(std::size_t first, std::size_t count) {
  if (first == count) return;
  platform::ForEachMapsLine([=](const char* line) {
    std::uint64_t begin = 0;
    std::uint64_t end = 0;
    int name = -1;
    const int read =
        std::sscanf(line, "%" SCNx64 "-%" SCNx64 " %*4s %*x %*x:%*x %*d %n", &begin, &end, &name);
    if (read != 2 || name < 0 || line[name] == '\0') return true;
    for (std::size_t i = first; i < count; ++i) {
      Object& object = g_objects[i];
      if (object.begin < begin || object.begin >= end) continue;
      if (std::strcmp(object.path, line + name) != 0) object.path = KeepName(line + name);
    }
    return true;
  });
}

}  // namespace

const Object* Objects() {
  return g_objects;
}

std::size_t ObjectCount() {
  return g_count.load(std::memory_order_acquire);
}

bool UpdateObjects(std::uint32_t version) {
  const int saved_errno = errno;
  Update update;
  dl_iterate_phdr(EnterObject, &update);
  bool closed = false;
  if (update.changed) {
    const std::size_t known = g_count.load(std::memory_order_relaxed);
    for (std::size_t i = 0; i < known; ++i) {
      Object& object = g_objects[i];
      if (object.sweep == g_sweep || object.until.load(std::memory_order_relaxed) != 0) continue;
      object.until.store(std::max(version, 1U), std::memory_order_relaxed);
      closed = true;
    }
    TakeMappingNames(known, update.count);
    g_count.store(update.count, std::memory_order_release);
  }
  if (update.locked) g_lock.unlock();
  errno = saved_errno;
  return closed;
}

void FreeLocksInChild() {
  static_cast<void>(g_lock.try_lock());
  g_lock.unlock();
}

}  // namespace profile
