// SPDX-License-Identifier: Apache-2.0
// An index of /proc/self/maps: finds the mapped file and the offset for a pc.
//
// The report writer uses it on the dump thread. It allocates, so the allocation path never uses it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <set>
#include <string>

#include "platform/policies.h"

/// One line of the maps file.
struct MapEntry {
  std::uint64_t start = 0;
  std::uint64_t end = 0;
  std::uint64_t offset = 0;
  std::uint64_t load_bias = 0;
  std::string name;
  bool init = false;
  /// 1 if readable, plus 4 if executable. The write bit is not stored.
  int flags = 0;
};

/// The mapping of one of the Java runtime's native libraries.
struct JavaNativeLibAddr {
  std::uint64_t start = 0;
  std::uint64_t end = 0;
  std::string name;
};

/// Orders ranges by address. Overlapping ranges compare equal.
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
  /// Returns the instance for this process, never null: it reads "/proc/self/maps" and accepts the
  /// platform's pc widths.
  static MapData* GetInstance();

  /// An index of the file `maps_path` that accepts pcs of `width`. Reads nothing yet.
  MapData(std::string maps_path, platform::PcWidth width);
  ~MapData();
  MapData(const MapData&) = delete;
  MapData& operator=(const MapData&) = delete;

  /// Returns the entry that contains `pc`, or null, which is logged. Stores the offset from the
  /// start of the entry in `*rel_pc`. Reads the maps again if no known entry matches. Entries live
  /// as long as the index. Any thread; takes the mutex. Allocates.
  const MapEntry* Find(std::uintptr_t pc, std::uintptr_t* rel_pc);

  /// Adds the lines of the maps file that overlap no known entry. Skips empty ranges. Returns false
  /// if the file cannot be opened or a line cannot be parsed; entries added so far stay. The caller
  /// holds the mutex, or no other thread uses the index.
  bool ReadMaps(bool stop_when_java_native_complete);

  /// Stores `entry` if it is executable code of a Java-native library. Locking as for ReadMaps.
  void AddJavaNativeLib(const MapEntry* entry);

 private:
  const MapEntry* Search(std::uint64_t pc) const;

  std::mutex mutex_;
  const std::string maps_path_;
  const platform::PcWidth width_;
  std::set<MapEntry*, CompareEntries> entries_;
  std::set<JavaNativeLibAddr, CompareLibAddr> java_native_libs_;
};
