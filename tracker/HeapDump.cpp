// SPDX-License-Identifier: Apache-2.0
// The leak-info and heap-dump entries. The C library calls them on behalf of the platform's tools.
#include <cstdio>
#include <cstring>
#include <new>

#include "async_safe/log.h"
#include "protocol/protocol.h"
#include "records/PointerData.h"
#include "tracker/MallocMemTrack.h"
#include "tracker/control/MemTrackControl.h"
#include "tracker/control/RecordingScope.h"

namespace {

using protocol::kLogTag;

/// Intentional: one "Could not open" line for each mapping, and nothing if the file cannot be
/// opened. Readers of these dumps expect it.
void WriteMaps(std::FILE* out) {
  std::FILE* maps = std::fopen("/proc/self/maps", "re");
  if (maps == nullptr) return;
  char piece[512];
  bool line_starts = true;
  while (std::fgets(piece, sizeof(piece), maps) != nullptr) {
    if (line_starts) std::fputs("Could not open /proc/self/maps\n", out);
    line_starts = std::strchr(piece, '\n') != nullptr;
  }
  std::fclose(maps);
}

}  // namespace

void track_get_malloc_leak_info(std::uint8_t** info, std::size_t* overall_size,
                                std::size_t* info_size, std::size_t* total_memory,
                                std::size_t* backtrace_size) {
  const RecordingScope scope(MemTrackControl::GetInstance());
  if (info == nullptr || overall_size == nullptr || info_size == nullptr ||
      total_memory == nullptr || backtrace_size == nullptr) {
    async_safe_format_log(ANDROID_LOG_ERROR, kLogTag,
                          "get_malloc_leak_info: At least one invalid parameter.");
    return;
  }
  *info = nullptr;
  *overall_size = 0;
  *info_size = 0;
  *total_memory = 0;
  *backtrace_size = 0;
  try {
    PointerData::GetInfo(info, overall_size, info_size, total_memory, backtrace_size, nullptr);
  } catch (const std::bad_alloc&) {
    async_safe_format_log(ANDROID_LOG_ERROR, kLogTag, "get_malloc_leak_info: no memory");
  }
}

void track_free_malloc_leak_info(std::uint8_t* info) {
  MemTrackControl::GetInstance()->dispatch()->free(info);
}

void track_write_malloc_leak_info(std::FILE* stream) {
  // Intentional: writes nothing.
  if (stream == nullptr) {
    async_safe_format_log(ANDROID_LOG_ERROR, kLogTag,
                          "write_malloc_leak_info called with a nullptr");
  }
}

bool track_dump_heap(const char* file_name) {
  const RecordingScope scope(MemTrackControl::GetInstance());
  std::FILE* out = std::fopen(file_name, "w+e");
  if (out == nullptr) {
    async_safe_format_log(ANDROID_LOG_ERROR, kLogTag, "Unable to create file: %s", file_name);
    return false;
  }
  // Intentional: error level, and a newline in the text.
  async_safe_format_log(ANDROID_LOG_ERROR, kLogTag, "Dumping to file: %s\n", file_name);
  std::fputs("Android Native Heap Dump v1.1\n\n", out);
  std::fputs("MAPS\n", out);
  WriteMaps(out);
  std::fputs("END\n", out);
  std::fclose(out);
  return true;
}
