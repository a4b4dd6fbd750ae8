// Groups of live blocks that share size, zygote mark and pcs, found in one pass over all sets.
//
// The scan of a list for every record is replaced by an index; groups come out in the same order.
// Used by the leak-info export and the report, on the dump thread or the one that asks.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "records/PointerSet.h"

class Grouping {
 public:
  /// Adds to `list`, whose elements so far take part as groups. Records without a backtrace are
  /// left out. The caller holds every pointer and frame lock for as long as this object lives, and
  /// its thread is marked.
  explicit Grouping(std::vector<ListInfoType>* list);

  /// Adds the records of all sets, in set order. Logs what it must leave out.
  void AddAllSets();

  /// Appends the allocation times that the backtrace of group `i` has in its set to `times`,
  /// at most PointerData::kMaxTimes of them.
  void CopyTimes(std::size_t i, std::vector<std::int64_t>* times) const;

 private:
  /// What is noted about a backtrace that has been met. FrameInfoType::report_note leads here; as
  /// it is never reset, a note counts only when it names the backtrace in turn.
  struct Note {
    const FrameInfoType* backtrace;
    /// The group that its last record fell into.
    std::uint64_t last_size_word;
    std::uint32_t last_group;
    std::uint32_t time_count;
    std::uint32_t first_time;
    std::uint32_t last_time;
  };
  /// Times of one backtrace, chained in the order in which they were met.
  struct TimeNode {
    std::int64_t time;
    std::uint32_t next;
  };

  void AddSet(PointerSet* set);
  void AddRecord(const Record& record, FrameInfoType* backtrace);
  Note* NoteOf(FrameInfoType* backtrace);
  const Note* FindNote(const FrameInfoType* backtrace) const;
  void AddTime(Note* note, std::int64_t time);
  std::uint32_t FindOrAddGroup(const Record& record, FrameInfoType* backtrace);
  void GrowIndex();

  std::vector<ListInfoType>& list_;
  std::vector<Note> notes_;
  std::vector<TimeNode> times_;
  /// Open addressing over list_: index + 1, 0 for a free slot; a power of two.
  std::vector<std::uint32_t> index_;
};
