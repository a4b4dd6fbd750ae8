// SPDX-License-Identifier: Apache-2.0
// The program and the libraries that were loaded while recording. Linux only.
//
// Objects are entered before each dlclose and when a report is written, not during recording. If
// the C library unloads an object without dlclose, this is noticed late: until then, backtraces in
// a new object at the same address may be assigned to the old one.
#pragma once

#include <sys/mman.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace profile {

/// Returns `bytes` zeroed bytes, to be freed by munmap; null if there is no memory.
inline void* MapPages(std::size_t bytes) {
  void* const pages = mmap(nullptr, bytes, PROT_READ | PROT_WRITE,
                           MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  return pages == MAP_FAILED ? nullptr : pages;
}

struct Segment {
  std::uint64_t begin;
  std::uint64_t end;
  std::uint64_t offset;  ///< in the file
};

/// One loaded object. All members but `until` are constant.
struct Object {
  static constexpr std::size_t kMaxSegments = 8;
  static constexpr std::size_t kMaxBuildId = 32;

  std::uint64_t bias;  ///< addresses in memory minus addresses in the file
  std::uint64_t begin;
  std::uint64_t end;
  std::uint64_t identity;  ///< digest of its name and build id
  /// 0 while the object is loaded. Otherwise the first CodeVersion without it. A backtrace belongs,
  /// at each pc, to the object with the lowest `until` above the backtrace's version.
  std::atomic<std::uint32_t> until;
  std::uint32_t sweep;  ///< number of the latest UpdateObjects that found the object
  std::uint32_t segment_count;
  std::uint32_t build_id_bytes;
  Segment segments[kMaxSegments];
  unsigned char build_id[kMaxBuildId];
  const char* path;  ///< as in /proc/self/maps; constant once the object is counted

  bool Contains(std::uint64_t pc) const { return pc >= begin && pc < end; }
};

/// Returns the array of ObjectCount() objects. Entries are never removed. Any thread.
const Object* Objects();
std::size_t ObjectCount();

/// Enters new objects, and marks objects that were unloaded as closed at `version`. Returns whether
/// it has marked any. Not for signal handlers. Takes the dynamic linker's lock, so the caller holds
/// no lock of the store. Allocates with mmap only.
bool UpdateObjects(std::uint32_t version);

}  // namespace profile
