// SPDX-License-Identifier: Apache-2.0
// The store of live blocks: address, size, allocation time and backtrace of each.
//
// It has 40 sets (8 stripes of the address space times 5 size classes), each with its own locks.
// Add and Remove run on every allocating thread. The readers run on the dump thread, in the
// leak-info export and in the fork handlers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "records/record_types.h"

class DebugData;
class PointerSet;
class ReportText;
struct BacktraceRef;
namespace profile {
class Snapshot;
}

class PointerData {
 public:
  /// Hash index of a record without a backtrace.
  static constexpr std::uint64_t kEmptyBacktraceIndex = 1;
  /// GetInfo exports no list with more groups than this.
  static constexpr std::size_t kMaxGroups = 60000;
  /// Maximum number of allocation times in an exported group.
  static constexpr std::size_t kMaxTimes = 30;

  /// `owner` is stored as a back-pointer only.
  explicit PointerData(DebugData* owner) : owner_(owner) {}
  virtual ~PointerData() = default;
  PointerData(const PointerData&) = delete;
  PointerData& operator=(const PointerData&) = delete;

  /// Creates the sets if there are none, and empties every table. Returns false, with nothing
  /// changed, if there is no memory for the sets. Takes the initialise lock, so it waits for a
  /// report. Waits for no other lock, since a control signal's handler may call it on a thread that
  /// holds one.
  bool Initialize();

  /// Records a block of `size` bytes at `pointer` with the backtrace of the calling thread. Must be
  /// called directly by an exported entry, since the frame walk skips a fixed number of levels.
  /// Does nothing before Initialize, or if the thread is already inside the store. Without memory,
  /// counts the block as unreported and logs the first one. Any thread.
  void Add(const void* pointer, std::size_t size);
  /// Removes the record of the block at `pointer`. Call it before the memory is released. An
  /// unknown block is not an error. Any thread.
  void Remove(const void* pointer, std::size_t size);
  /// As Add and Remove, for the proxies' mappings and buffers. The size class is always that of
  /// `size`. The frame walk begins at the hooked caller.
  void AddMapping(const void* pointer, std::size_t size);
  void RemoveMapping(const void* pointer, std::size_t size);
  /// Returns the block's usable size, from the C library.
  static std::size_t PointerSize(const void* pointer);

  /// Copies up to `max_frames` pcs of the backtrace of the block at `pointer`, innermost first.
  /// Returns their number; 0 if there is no record or no backtrace. Any thread.
  static std::size_t GetFrames(const void* pointer, std::uintptr_t* frames, std::size_t max_frames);

  /// Takes the spare, pointer and frame lock of every set, in set order. Runs on the forking
  /// thread. The thread continues to record while it holds the locks: fork handlers of other
  /// libraries may allocate.
  static void PrepareFork();
  /// Releases the locks in the parent.
  static void PostForkParent();
  /// Frees the locks in the child, also those that other threads held. Also frees the store's other
  /// locks if the platform's policy allows it.
  static void PostForkChild();

  /// Appends the groups of live blocks (same size, zygote mark and pcs) to `list`, in the order in
  /// which they are found. Always skips records without a backtrace; `only_with_backtrace` has no
  /// effect. If the thread is marked, the caller must hold every lock; else this takes them.
  /// Allocates.
  static void GetUniqueList(std::vector<ListInfoType>* list, bool only_with_backtrace);
  /// Re-reads the backtrace size property and returns the current size. A value that is not all
  /// digits, or does not fit an int, is ignored. Allocates nothing; safe in a signal handler.
  static std::uint32_t GetMaxBacktraceNum();
  /// Appends the groups to `list`, largest first, and stores their sizes in bytes in the other
  /// outputs. `info` is not written. If there is no group, more than kMaxGroups, or no `list`, logs
  /// that and leaves all outputs unchanged. Holds every pointer and frame lock during the grouping,
  /// and calls `snapshot`'s Collect under them unless it is null. Removes the thread's mark.
  /// Allocates; not for signal handlers.
  static void GetInfo(std::uint8_t** info, std::size_t* overall_size, std::size_t* info_size,
                      std::size_t* total_memory, std::size_t* backtrace_size,
                      std::vector<RecordStruct>* list, profile::Snapshot* snapshot = nullptr);
  /// Sorts by total, then by size, both descending.
  static void SortListByTotalAllocation(std::vector<RecordStruct>* list);

  /// Writes the profile and the report to their files, and sends the report to the exception-log
  /// device. Reports failures only to the log. Holds the initialise lock throughout, so it waits
  /// for a clear or another report. Dump thread only: allocates, reads the maps, writes files.
  static void DumpAllocationTracesToFile();
  /// Writes the native section of the report. The thread must hold no lock of a set. Removes the
  /// thread's mark and fills `snapshot`, as GetInfo does.
  static void ReportNodes(ReportText& out, profile::Snapshot* snapshot = nullptr);
  /// Writes the section of blocks with Java-native stacks. The caller holds the initialise lock, as
  /// for GetJavaNativeStackInfo. Allocates.
  static void ReportJavaNativeNodes(ReportText& out);
  /// Appends the groups of Java-native records to `list` and sorts it. The elements point to stacks
  /// in the tables. A stack never changes, and only a clear removes it, so the caller holds the
  /// initialise lock, which keeps clears out, as long as it uses `list`. Allocates.
  static void GetJavaNativeStackInfo(std::vector<UnwindListInfoType>* list,
                                     bool only_with_backtrace);
  /// Sorts by count times size, then by size, both descending.
  static void SortJavaNativeListByTotalAllocation(std::vector<UnwindListInfoType>* list);

 private:
  /// Properties of one operation.
  struct Call {
    /// The block comes from a proxy. The allocator itself may have made the hooked call, so the
    /// operation does not call the allocator.
    bool is_mapping;
    /// The thread holds the locks of all sets.
    bool held;
    /// The operation was tried before, and has recorded the block's Java-native frames.
    bool has_java_native;
  };
  static void AddBlock(const void* pointer, std::size_t size, Call call);
  static void RemoveBlock(const void* pointer, std::size_t size, Call call);
  static BacktraceRef AddBacktrace(std::size_t num_frames, PointerSet* set, std::uint64_t pointer,
                                   std::size_t size, Call call);

  DebugData* const owner_;
};
