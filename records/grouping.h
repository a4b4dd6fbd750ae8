// Groups of live blocks that share size, zygote mark and pcs, found in one pass over all sets.
//
// An index replaces the scan of the list for each record.
// Used by the leak-info export and the report, on the dump thread or the one that asks.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "records/record_store.h"
#include "records/record_types.h"

class Grouping {
 public:
  /// Adds to `list`, whose elements so far take part as groups. Records without a backtrace are
  /// left out. The caller keeps record operations out for as long as this object lives, and the
  /// thread's record key is set.
  explicit Grouping(std::vector<ListInfoType>* list);

  /// Adds all records. Logs what it must leave out.
  void AddAllSets();

  /// Appends the allocation times that the backtrace of group `i` has in the first set with a
  /// member of the group to `times`, at most PointerData::kMaxTimes of them. Intentional: these may
  /// be times of blocks of other sizes.
  void CopyTimes(std::size_t i, std::vector<std::int64_t>* times);

 private:
  /// The allocation times of one backtrace in one set, of at most PointerData::kMaxTimes members.
  struct TimeList {
    const FrameInfoType* backtrace;
    std::uint32_t set;
    /// The next list of the same backtrace, plus 1; else 0.
    std::uint32_t next_list;
    std::uint32_t count;
    std::uint32_t first;
    std::uint32_t last;
  };
  /// One time of a list, chained in the order in which they were met.
  struct TimeNode {
    std::int64_t time;
    std::uint32_t next;
  };

  void AddRecord(std::uint64_t address, const Record& record);
  void CollectTimes();
  std::uint32_t FindOrAddGroup(std::uint64_t address, const Record& record,
                               FrameInfoType* backtrace, std::uint32_t set);
  void WantTimes(FrameInfoType* backtrace, std::uint32_t set);
  TimeList* FindTimes(const FrameInfoType* backtrace, std::uint32_t set);
  void AddTime(TimeList* list, std::int64_t time);
  void GrowIndex();

  std::vector<ListInfoType>& list_;
  /// The lowest set that has a member, for each group.
  std::vector<std::uint32_t> first_sets_;
  std::vector<TimeList> time_lists_;
  std::vector<TimeNode> times_;
  /// Open addressing over list_: index + 1, 0 for a free slot; a power of two.
  std::vector<std::uint32_t> index_;
};
