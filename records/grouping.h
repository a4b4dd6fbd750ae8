// SPDX-License-Identifier: Apache-2.0
// Groups live blocks with the same size, zygote mark and pcs, in one pass over all sets.
//
// Used by the leak-info export and the report, on the dump thread or the thread that asks for the
// export.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "records/record_store.h"
#include "records/record_types.h"

class Grouping {
 public:
  /// Adds groups to `list` (not owned), or increases their count if they are in it. The caller
  /// keeps record operations out during the lifetime of this object, and the thread's record key
  /// is set.
  explicit Grouping(std::vector<ListInfoType>* list);

  /// Adds all records. Skips records without a backtrace and logs them.
  void AddAllSets();
  /// Collects the times of all groups, in another pass over the records.
  void CollectTimes();

  /// After CollectTimes: appends up to PointerData::kMaxTimes allocation times of group `i` to
  /// `times`: those of the group's backtrace in the first set with a member of the group.
  /// Intentional: this includes times of blocks of other sizes.
  void CopyTimes(std::size_t i, std::vector<std::int64_t>* times);

 private:
  /// Up to PointerData::kMaxTimes allocation times of one backtrace in one set.
  struct TimeList {
    const FrameInfoType* backtrace;
    std::uint32_t set;
    /// Index + 1 of the next list of the same backtrace; 0 for none.
    std::uint32_t next_list;
    std::uint32_t count;
    std::uint32_t first;
    std::uint32_t last;
  };
  /// One time of a list. A list is chained in the order in which its times were found.
  struct TimeNode {
    std::int64_t time;
    std::uint32_t next;
  };

  void AddRecord(std::uint64_t address, const Record& record);
  std::uint32_t FindOrAddGroup(std::uint64_t address, const Record& record,
                               FrameInfoType* backtrace, std::uint32_t set);
  std::uint32_t FirstTimeList(const FrameInfoType* backtrace) const;
  TimeList* FindTimes(const FrameInfoType* backtrace, std::uint32_t set);
  void AddTimeList(FrameInfoType* backtrace, std::uint32_t set);
  void AddTime(TimeList* list, std::int64_t time);
  void RebuildIndex(std::size_t slots);

  std::vector<ListInfoType>& list_;
  /// For each group, the lowest set that has a member.
  std::vector<std::uint32_t> first_sets_;
  std::vector<TimeList> time_lists_;
  std::vector<TimeNode> times_;
  /// Hash index of list_: index + 1, or 0 for a free slot. Open addressing; a power of two.
  std::vector<std::uint32_t> index_;
};
