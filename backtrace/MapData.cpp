// SPDX-License-Identifier: Apache-2.0
// The index of /proc/self/maps: lookups and the parser.
//
// Runs on the dump thread, under the index's mutex. Allocates.
#include "backtrace/MapData.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <memory>
#include <string_view>
#include <utility>

#include "async_safe/log.h"
#include "protocol/protocol.h"
#include "tracker/control/MemTrackControl.h"

namespace {

using protocol::kLogTag;
constexpr std::string_view kJavaNativeLibs[] = {
    "/system/lib64/libhwui.so",
    "/apex/com.android.i18n/lib64/libicuuc.so",
    "/apex/com.android.i18n/lib64/libicu_jni.so",
};
/// Line buffer size. A longer line is read in several parts.
constexpr int kLineBytes = 1024;
constexpr int kReadable = 1;
constexpr int kExecutable = 4;

/// Parses one line of the maps file. Returns null if it has no address range.
std::unique_ptr<MapEntry> ParseLine(const char* line) {
  auto entry = std::make_unique<MapEntry>();
  char permissions[5] = {};
  int name_position = -1;
  if (std::sscanf(line, "%" SCNx64 "-%" SCNx64 " %4s %" SCNx64 " %*x:%*x %*d %n", &entry->start,
                  &entry->end, permissions, &entry->offset, &name_position) < 2) {
    return nullptr;
  }
  if (permissions[0] == 'r') entry->flags |= kReadable;
  if (permissions[2] == 'x') entry->flags |= kExecutable;
  if (name_position >= 0) entry->name = line + name_position;
  if (!entry->name.empty() && entry->name.back() == '\n') entry->name.pop_back();
  return entry;
}

}  // namespace

MapData* MapData::GetInstance() {
  // Never destroyed: a report may be written while exit handlers run.
  static MapData& instance = *new MapData("/proc/self/maps", platform::AcceptedPcWidth());
  return &instance;
}

MapData::MapData(std::string maps_path, platform::PcWidth width)
    : maps_path_(std::move(maps_path)), width_(width) {}

MapData::~MapData() {
  // If recording never started, or the lock is taken, the entries leak: a report may still be using
  // them. A forked child may find the lock taken forever.
  const MemTrackControl* control = MemTrackControl::GetInstance();
  if (control == nullptr || !control->GetHookEverStarted()) return;
  const std::unique_lock<std::mutex> lock(mutex_, std::try_to_lock);
  if (!lock.owns_lock()) return;
  for (const MapEntry* entry : entries_) delete entry;
  entries_.clear();
}

const MapEntry* MapData::Find(std::uintptr_t pc, std::uintptr_t* rel_pc) {
  const std::lock_guard<std::mutex> lock(mutex_);
  char digits[20];
  const int length = std::snprintf(digits, sizeof digits, "%" PRIxPTR, pc);
  if (length < width_.min_digits || length > width_.max_digits) {
    async_safe_format_log(ANDROID_LOG_ERROR, kLogTag, "invalid addr: addrLen = %d", length);
    return nullptr;
  }
  const MapEntry* entry = Search(pc);
  if (entry == nullptr) {
    ReadMaps(false);
    entry = Search(pc);
  }
  if (entry == nullptr) {
    async_safe_format_log(ANDROID_LOG_ERROR, kLogTag, "end, not find entry");
    return nullptr;
  }
  if (rel_pc == nullptr) {
    async_safe_format_log(ANDROID_LOG_ERROR, kLogTag, "relPc is null");
    return entry;
  }
  *rel_pc = pc - entry->start + entry->load_bias;
  return entry;
}

const MapEntry* MapData::Search(std::uint64_t pc) const {
  MapEntry key;
  key.start = pc;
  key.end = pc;
  const auto found = entries_.lower_bound(&key);  // the first entry that ends above pc
  // Intentional: a pc equal to the start does not match. No call ends at the start of a mapping.
  return found != entries_.end() && (*found)->start < pc ? *found : nullptr;
}

bool MapData::ReadMaps(bool stop_when_java_native_complete) {
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(maps_path_.c_str(), "re"),
                                                             &std::fclose);
  if (file == nullptr) return false;
  char line[kLineBytes] = {};
  while (std::fgets(line, kLineBytes, file.get()) != nullptr) {
    std::unique_ptr<MapEntry> entry = ParseLine(line);
    if (entry == nullptr) return false;
    // The rest of a long name may look like an empty range, which has no place in the order.
    if (entry->start >= entry->end) continue;
    // Overlapping ranges compare equal, so a known entry wins: a mapping that was replaced keeps
    // its first name and start.
    if (!entries_.insert(entry.get()).second) continue;
    AddJavaNativeLib(entry.release());
    if (stop_when_java_native_complete && java_native_libs_.size() == std::size(kJavaNativeLibs)) {
      break;
    }
  }
  return true;
}

void MapData::AddJavaNativeLib(const MapEntry* entry) {
  if (entry->name.empty() || (entry->flags & kExecutable) == 0) return;
  for (const std::string_view library : kJavaNativeLibs) {
    if (entry->name == library) {
      java_native_libs_.insert({entry->start, entry->end, entry->name});
      return;
    }
  }
}
