// Stand-in: the mappings of this process, read again when an address is not among them.
//
// Shared by all unwinds of all threads. Code lookups on the allocation path take no lock.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "unwindstack/MapInfo.h"

namespace unwindstack {

class LocalUpdatableMaps {
 public:
  /// One executable mapping.
  struct CodeRange {
    std::uint64_t start;
    std::uint64_t end;
    /// Last component of the mapped file's name; empty for unnamed memory.
    std::string_view basename;

    bool Contains(std::uint64_t pc) const { return pc >= start && pc < end; }
  };

  LocalUpdatableMaps() = default;
  /// An index of `maps_path`, a file in the form of /proc/self/maps; for tests.
  explicit LocalUpdatableMaps(std::string maps_path) : maps_path_(std::move(maps_path)) {}
  /// No other thread may be using the object any more.
  ~LocalUpdatableMaps();
  LocalUpdatableMaps(const LocalUpdatableMaps&) = delete;
  LocalUpdatableMaps& operator=(const LocalUpdatableMaps&) = delete;

  /// Reads /proc/self/maps, lets the unwinder set itself up and registers fork handlers. False when
  /// the maps cannot be read. Once, before the first unwind, preferably while there is one thread.
  /// Allocates.
  bool Parse();
  /// Reads it again: new mappings are added and gone ones dropped; a mapping that is still there
  /// keeps its MapInfo. False, and nothing changed, when it cannot be read. Allocates.
  bool Reparse();
  /// The mapping that contains `pc`, or null; reads the maps again before it gives up.
  std::shared_ptr<MapInfo> Find(std::uint64_t pc);

  /// Addition to the platform's interface, for the allocation path: the executable mapping that
  /// contains `pc`, or null. The result lives as long as this object. Takes no lock and allocates
  /// nothing when `pc` is in a known one; otherwise reads the maps again, unless another thread is
  /// doing so or the last miss was on the same page.
  const CodeRange* FindCode(std::uint64_t pc);

 private:
  using MapList = std::vector<std::shared_ptr<MapInfo>>;
  /// The executable mappings at one time, ordered by start; never changed once published.
  struct CodeIndex {
    MapList owners;  // the MapInfos whose names the ranges point into
    std::vector<CodeRange> ranges;

    const CodeRange* Find(std::uint64_t pc) const;
  };

  bool ReparseLocked();
  void PublishCode();

  const std::string maps_path_ = "/proc/self/maps";
  std::mutex mutex_;
  MapList maps_;  // ordered by start
  std::atomic<const CodeIndex*> code_{nullptr};
  /// Every index ever published, since a thread may still be inside an older one. Grows only when
  /// the executable mappings were found changed, which in practice is once a loaded library.
  std::vector<std::unique_ptr<const CodeIndex>> code_indexes_;
  std::atomic<std::uint64_t> missed_page_{0};
};

}  // namespace unwindstack
