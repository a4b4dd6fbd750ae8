// Blocks with Java-native stacks: their grouping, their order and their section of the report.
//
// Runs on the dump thread, inside DumpAllocationTracesToFile.

#include <algorithm>
#include <cstdint>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "async_safe/log.h"
#include "protocol/protocol.h"
#include "records/PointerData.h"
#include "records/PointerSet.h"
#include "records/report_text.h"
#include "tracker/control/MemTrackControl.h"

namespace {

using protocol::kLogTag;
/// Stands on both sides of the section's title.
constexpr char kSectionRule[] = "==============================";

std::uint64_t Mix(std::uint64_t hash, std::uint64_t value) {
  // Multiply and fold: 2^64 divided by the golden ratio, an odd number with well-spread bits.
  hash = (hash ^ value) * 0x9E3779B97F4A7C15u;
  return hash ^ (hash >> 32);
}

/// Hash of everything by which two elements with an unwind record are compared.
std::uint64_t GroupHash(const UnwindListInfoType& element) {
  std::uint64_t hash = Mix(element.size, element.zygote_child ? 1 : 2);
  for (const unwindstack::FrameData& frame : element.unwind_info->frames) {
    hash = Mix(hash, frame.rel_pc);
  }
  return hash;
}

/// Both have an unwind record. Only the rel_pc of a frame counts.
bool SameGroup(const UnwindListInfoType& a, const UnwindListInfoType& b) {
  if (a.zygote_child != b.zygote_child || a.size != b.size) return false;
  if (a.unwind_info == b.unwind_info) return true;
  const std::vector<unwindstack::FrameData>& left = a.unwind_info->frames;
  const std::vector<unwindstack::FrameData>& right = b.unwind_info->frames;
  return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                    [](const unwindstack::FrameData& l, const unwindstack::FrameData& r) {
                      return l.rel_pc == r.rel_pc;
                    });
}

/// A list of groups in first-seen order, with an index that finds an element's group without
/// walking the list.
class GroupedList {
 public:
  explicit GroupedList(std::vector<UnwindListInfoType>* list) : list_(list) {
    for (std::size_t i = 0; i < list_->size(); ++i) {
      if ((*list_)[i].unwind_info != nullptr) index_.emplace(GroupHash((*list_)[i]), i);
    }
  }

  /// Appends `candidate` unless its group is there. A candidate that is dropped adds nothing to
  /// the group's count, which is the number of references of the shared stack already: that
  /// counts every live block with the stack, whatever its size, and is wanted so.
  void Add(const UnwindListInfoType& candidate) {
    if (candidate.unwind_info != nullptr) {
      const std::uint64_t hash = GroupHash(candidate);
      const auto [first, last] = index_.equal_range(hash);
      const bool known = std::any_of(first, last, [&](const auto& slot) {
        return SameGroup((*list_)[slot.second], candidate);
      });
      if (known) return;
      index_.emplace(hash, list_->size());
    }
    list_->push_back(candidate);
  }

 private:
  std::vector<UnwindListInfoType>* const list_;
  std::unordered_multimap<std::uint64_t, std::size_t> index_;
};

/// The unwind record of index `hash_index`, or null when there is none. An entry without a stack
/// is dropped from the table. The caller holds the set's unwind_mutex.
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
  // The locks are held while the tables are read, not just passed through: a thread that records
  // may rehash them at any time. They are taken whatever the thread's mark says: a thread that has
  // one holds pointer and frame locks at most, which come before these two.
  const std::scoped_lock lock(set.java_pointer_mutex, set.unwind_mutex);
  set.SyncJavaTables();
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

// The caller holds the initialise lock, see GetJavaNativeStackInfo. Allocates.
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

// The elements point into the tables. The locks are gone when this returns, and the stacks stay
// only because a stored stack never changes and nothing but a clear removes one: the caller holds
// the initialise lock, which keeps a clear away, until it is done with `list`. Who wants to keep
// the stacks longer copies them before it lets go. Nothing is appended before the first Initialize.
void PointerData::GetJavaNativeStackInfo(std::vector<UnwindListInfoType>* list,
                                         bool only_with_backtrace) {
  PointerSet* const all_sets = PointerSet::All();
  if (all_sets == nullptr) return;
  {
    // The list grows, and so frees, under the locks of a set; Remove of such a block would take
    // pointer and frame locks behind them, against the order.
    const InsideStore inside;
    GroupedList groups(list);
    for (std::uint64_t i = 0; i < PointerSet::kCount; ++i) {
      CollectSet(all_sets[i], only_with_backtrace, groups);
    }
  }
  SortJavaNativeListByTotalAllocation(list);
}

// Sorts in place; elements equal in both keep no order. Any thread, takes no lock.
void PointerData::SortJavaNativeListByTotalAllocation(std::vector<UnwindListInfoType>* list) {
  std::sort(list->begin(), list->end(),
            [](const UnwindListInfoType& a, const UnwindListInfoType& b) {
              const std::uint64_t total_a = a.num * a.size;
              const std::uint64_t total_b = b.num * b.size;
              return total_a != total_b ? total_a > total_b : a.size > b.size;
            });
}
