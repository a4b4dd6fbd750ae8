// The index of /proc/self/maps: from a pc to a mapped file and an offset in its mapping.
//
// Called by the report writer on the dump thread; never on the allocation path, since it allocates.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <set>
#include <string>

#include "platform/pc_policy.h"

/// One line of the maps file.
struct MapEntry {
  std::uint64_t start = 0;
  std::uint64_t end = 0;
  std::uint64_t offset = 0;
  std::uint64_t load_bias = 0;
  std::string name;
  bool init = false;
  /// 1 for readable, plus 4 for executable; the write bit is not kept.
  int flags = 0;
};

/// Where one of the Java runtime's native libraries is mapped.
struct JavaNativeLibAddr {
  std::uint64_t start = 0;
  std::uint64_t end = 0;
  std::string name;
};

/// Ranges that overlap count as equal.
struct CompareEntries {
  bool operator()(const MapEntry* a, const MapEntry* b) const { return a->end <= b->start; }
};
struct CompareLibAddr {
  bool operator()(const JavaNativeLibAddr& a, const JavaNativeLibAddr& b) const {
    return a.end <= b.start;
  }
};

class MapData {
 public:
  /// The process's own instance, never null.
  static MapData* GetInstance();

  /// An index over `maps_path` that accepts pcs of `width`; the instance uses "/proc/self/maps" and
  /// the platform's bounds.
  MapData(std::string maps_path, platform::PcWidth width);
  ~MapData();
  MapData(const MapData&) = delete;
  MapData& operator=(const MapData&) = delete;

  /// The entry that contains `pc`, or null; stores the offset from its start through `rel_pc`.
  /// Reads the maps again when no known entry matches. Entries live as long as the index.
  const MapEntry* Find(std::uintptr_t pc, std::uintptr_t* rel_pc);

  /// Adds the lines of the maps file that overlap no known entry; a range that ends at its start or
  /// before it is passed over. False when the file cannot be
  /// opened or a line cannot be parsed; what was added so far stays. The caller holds the mutex
  /// or is alone.
  bool ReadMaps(bool stop_when_java_native_complete);

  /// Notes `entry` when it is executable code of a Java-native library. Same locking as ReadMaps.
  void AddJavaNativeLib(const MapEntry* entry);

 private:
  friend class MapDataTest;

  const MapEntry* Search(std::uint64_t pc) const;

  std::mutex mutex_;
  const std::string maps_path_;
  const platform::PcWidth width_;
  std::set<MapEntry*, CompareEntries> entries_;
  std::set<JavaNativeLibAddr, CompareLibAddr> java_native_libs_;
};
