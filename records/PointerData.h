// The store of live blocks: which address, how large, made when and by whom.
//
// Sharded into 40 sets (8 stripes of the address space by 5 size classes), each with its own
// locks. Add and Remove run on every allocating thread; the readers run on the dump thread, in the
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

class PointerData {
 public:
  /// Hash index of a record without a backtrace.
  static constexpr std::uint64_t kEmptyBacktraceIndex = 1;
  /// GetInfo refuses to export more groups than this.
  static constexpr std::size_t kMaxGroups = 60000;
  /// Allocation times kept of each exported group.
  static constexpr std::size_t kMaxTimes = 30;

  /// `owner` is kept as a back-pointer only.
  explicit PointerData(DebugData* owner) : owner_(owner) {}
  virtual ~PointerData() = default;
  PointerData(const PointerData&) = delete;
  PointerData& operator=(const PointerData&) = delete;

  /// Makes the sets when there are none yet and empties every table. False, with nothing changed,
  /// when there is no memory for the sets. Takes the initialise lock, so it waits for a report;
  /// waits for no lock of a set.
  bool Initialize();

  /// Records a block of `size` bytes at `pointer` with the backtrace of the calling thread. Must
  /// be called directly by an exported entry (the frame walk skips that many levels). Does nothing
  /// inside another operation of the store on the same thread, or before Initialize. A block that
  /// there is no memory for is counted as unreported; the first one is logged.
  void Add(const void* pointer, std::size_t size);
  /// Forgets the block at `pointer`, before its memory is released. An unknown one is no error.
  void Remove(const void* pointer, std::size_t size);
  /// The same two for what a proxy has made or is about to give back, which is no heap block: its
  /// size class is always that of `size`. The walk begins at the hooked caller.
  void AddMapping(const void* pointer, std::size_t size);
  void RemoveMapping(const void* pointer, std::size_t size);
  /// The block's usable size, as the C library gives it.
  static std::size_t PointerSize(const void* pointer);

  /// Copies up to `max_frames` pcs of the backtrace recorded for `pointer`, innermost first.
  /// Returns how many; 0 when there is no record or no backtrace. Any thread.
  static std::size_t GetFrames(const void* pointer, std::uintptr_t* frames, std::size_t max_frames);

  /// Takes every set's spare, pointer and frame lock, in set order; on the forking thread. That
  /// thread goes on to record, with the locks held: other libraries' fork handlers may allocate.
  static void PrepareFork();
  /// Releases them in the parent.
  static void PostForkParent();
  /// Leaves all of them free in the child, no matter which thread held them, and the store's other
  /// locks too where that is the platform's policy.
  static void PostForkChild();

  /// Appends the groups of live blocks (same size, zygote mark and pcs) to `list`, in the order
  /// in which they are first met. On a marked thread the caller holds every lock.
  /// Records without a backtrace are left out whatever `only_with_backtrace` says.
  static void GetUniqueList(std::vector<ListInfoType>* list, bool only_with_backtrace);
  /// Re-reads the backtrace size property and returns the size in force. A value that is not all
  /// digits or does not fit leaves it unchanged. Allocates nothing: safe in a signal handler.
  static std::uint32_t GetMaxBacktraceNum();
  /// The groups, largest first, with their four sizes. `info` is not written. All outputs stay as
  /// they are when there is no group, more than kMaxGroups, or no `list`; that is logged.
  /// Holds every pointer and frame lock meanwhile; leaves the thread unmarked.
  static void GetInfo(std::uint8_t** info, std::size_t* overall_size, std::size_t* info_size,
                      std::size_t* total_memory, std::size_t* backtrace_size,
                      std::vector<RecordStruct>* list);
  /// Larger totals first, then larger sizes.
  static void SortListByTotalAllocation(std::vector<RecordStruct>* list);

  /// Writes the report to its file and hands it to the exception-log device. Holds the initialise
  /// lock throughout. On the dump thread: allocates, reads the maps, does file output.
  static void DumpAllocationTracesToFile();
  /// The native section of the report.
  static void ReportNodes(ReportText& out);
  /// The section of blocks with Java-native stacks.
  static void ReportJavaNativeNodes(ReportText& out);
  /// Appends the groups of Java-native records to `list` and sorts it.
  static void GetJavaNativeStackInfo(std::vector<UnwindListInfoType>* list,
                                     bool only_with_backtrace);
  /// Larger products of count and size first, then larger sizes.
  static void SortJavaNativeListByTotalAllocation(std::vector<UnwindListInfoType>* list);

 private:
  /// What the operations know of their call.
  struct Call {
    /// A block of a proxy. The allocator may have made the hooked call, so the allocator is not
    /// called.
    bool is_mapping;
    /// The thread holds every lock.
    bool held;
    /// A retry for the same block, whose Java-native part is stored.
    bool again;
  };
  static void AddBlock(const void* pointer, std::size_t size, bool is_mapping);
  static void RemoveBlock(const void* pointer, std::size_t size, bool is_mapping);
  static void AddBlockAs(const void* pointer, std::size_t size, Call call);
  static void RemoveBlockAs(const void* pointer, std::size_t size, Call call);
  static BacktraceRef AddBacktrace(std::size_t num_frames, PointerSet* set, std::uint64_t pointer,
                                   std::size_t size, Call call);

  DebugData* const owner_;
};
