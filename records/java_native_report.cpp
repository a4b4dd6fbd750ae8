// SPDX-License-Identifier: Apache-2.0
// Blocks with Java-native stacks: groups, their order, and their section of the report.
//
// Runs on the dump thread, inside DumpAllocationTracesToFile.
#include <algorithm>
#include <cstdint>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "async_safe/log.h"
#include "protocol/protocol.h"
#include "records/PointerData.h"
#include "records/PointerSet.h"
#include "records/report_text.h"
#include "tracker/control/MemTrackControl.h"

namespace {

using protocol::kLogTag;
/// Printed before and after the section's title.
constexpr char kSectionRule[] = "==============================";

bool RelPcLess(const unwindstack::FrameData& a, const unwindstack::FrameData& b) {
  return a.rel_pc < b.rel_pc;
}

/// A list of groups in the order in which they were found, without duplicates.
class GroupedList {
 public:
  explicit GroupedList(std::vector<UnwindListInfoType>* list) : list_(*list), known_(Less{list}) {
    for (std::size_t i = 0; i < list_.size(); ++i) {
      if (list_[i].unwind_info != nullptr) known_.insert(i);
    }
  }

  /// Appends `candidate` unless its group is in the list. Intentional: a dropped candidate does not
  /// change the group's count. The count is the number of references of the shared stack, which
  /// covers the live blocks of all sizes with that stack.
  void Add(const UnwindListInfoType& candidate) {
    list_.push_back(candidate);
    if (candidate.unwind_info == nullptr) return;
    if (!known_.insert(list_.size() - 1).second) list_.pop_back();
  }

 private:
  /// Orders elements with an unwind record by size, zygote mark and the rel_pcs of the stack.
  struct Less {
    const std::vector<UnwindListInfoType>* list;
    bool operator()(std::size_t i, std::size_t j) const {
      const UnwindListInfoType& a = (*list)[i];
      const UnwindListInfoType& b = (*list)[j];
      if (a.size != b.size) return a.size < b.size;
      if (a.zygote_child != b.zygote_child) return b.zygote_child;
      if (a.unwind_info == b.unwind_info) return false;
      const auto& left = a.unwind_info->frames;
      const auto& right = b.unwind_info->frames;
      return std::lexicographical_compare(left.begin(), left.end(), right.begin(), right.end(),
                                          RelPcLess);
    }
  };

  std::vector<UnwindListInfoType>& list_;
  /// Indexes into list_, one per group.
  std::set<std::size_t, Less> known_;
};

/// Returns the unwind record with index `hash_index`, or null. Removes an entry without a stack
/// from the table. The caller holds the set's unwind_mutex.
UnwindFrameInfoType* FindUnwindRecord(PointerSet& set, std::uint64_t pointer,
                                      std::uint64_t hash_index) {
  if (hash_index <= PointerData::kEmptyBacktraceIndex) return nullptr;
  const auto found = set.unwind_frames.find(hash_index);
  if (found != set.unwind_frames.end()) {
    if (found->second.references != 0 && !found->second.frames.empty()) return &found->second;
    set.unwind_frames.erase(found);
  }
  async_safe_format_log(ANDROID_LOG_ERROR, kLogTag, "Pointer 0x%lx hashIndex %zu does not exist.",
                        static_cast<unsigned long>(pointer), static_cast<std::size_t>(hash_index));
  return nullptr;
}

/// Adds the records of one set to `groups`.
void CollectSet(PointerSet& set, bool only_with_backtrace, GroupedList& groups) {
  // Held while the tables are read, since a thread that records may rehash them. A marked thread
  // takes these locks as well: it holds only pointer and frame locks, which come before these two
  // in the lock order.
  const std::scoped_lock lock(set.java_pointer_mutex, set.unwind_mutex);
  set.SyncJavaPointers();
  set.SyncUnwindFrames();
  for (const auto& [pointer, record] : set.java_pointers) {
    UnwindFrameInfoType* const unwind_info = FindUnwindRecord(set, pointer, record.hash_index);
    if (record.hash_index == 0 && only_with_backtrace) continue;
    UnwindListInfoType candidate;
    candidate.pointer = pointer;
    candidate.num = unwind_info == nullptr ? 1 : unwind_info->references;
    candidate.size = record.size & (kZygoteChildBit - 1);
    candidate.zygote_child = (record.size & kZygoteChildBit) != 0;
    candidate.unwind_info = unwind_info;
    groups.Add(candidate);
  }
}

}  // namespace

void PointerData::ReportJavaNativeNodes(ReportText& out) {
  out << kSectionRule << "Java-Native Stack" << kSectionRule << '\n';
  std::vector<UnwindListInfoType> list;
  GetJavaNativeStackInfo(&list, true);
  for (const UnwindListInfoType& element : list) {
    if (element.unwind_info == nullptr) continue;
    out << "sz " << element.size << ' ' << element.size * element.num << " num " << element.num
        << '\n';
    std::size_t number = 0;
    for (const unwindstack::FrameData& frame : element.unwind_info->frames) {
      (out << '#').TwoDigits(number++) << " rel_pc ";
      out.Hexadecimal(frame.rel_pc)
          << ' ' << static_cast<const std::string&>(frame.function_name) << '\n';
    }
  }
}

void PointerData::GetJavaNativeStackInfo(std::vector<UnwindListInfoType>* list,
                                         bool only_with_backtrace) {
  PointerSet* const all_sets = PointerSet::All();
  if (all_sets == nullptr) return;
  {
    // The list grows, and so frees memory, under the locks of a set. Removing such a block's record
    // would take pointer and frame locks after them, against the lock order.
    const InsideStore inside;
    GroupedList groups(list);
    for (std::uint64_t i = 0; i < PointerSet::kCount; ++i) {
      CollectSet(all_sets[i], only_with_backtrace, groups);
    }
  }
  SortJavaNativeListByTotalAllocation(list);
}

void PointerData::SortJavaNativeListByTotalAllocation(std::vector<UnwindListInfoType>* list) {
  std::sort(list->begin(), list->end(),
            [](const UnwindListInfoType& a, const UnwindListInfoType& b) {
              const std::uint64_t total_a = a.num * a.size;
              const std::uint64_t total_b = b.num * b.size;
              return total_a != total_b ? total_a > total_b : a.size > b.size;
            });
}
