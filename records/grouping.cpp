// SPDX-License-Identifier: Apache-2.0
// Groups of live blocks, found in one pass.
#include "records/grouping.h"

#include "async_safe/log.h"
#include "protocol/protocol.h"
#include "records/PointerData.h"
#include "records/set_selection.h"

namespace {

using protocol::kLogTag;
constexpr std::uint32_t kSizeMask = kZygoteChildBit - 1;
constexpr std::size_t kFirstIndexSlots = 1024;

std::size_t GroupHash(const FrameInfoType* backtrace, std::uint32_t size_word) {
  const std::uint64_t mixed = backtrace->fingerprint ^ (size_word * 0x9E3779B97F4A7C15U);
  return static_cast<std::size_t>((mixed * 0xD6E8FEB86659FD93U) >> 32);
}

std::uint32_t SetOf(std::uint64_t address, const Record& record) {
  return static_cast<std::uint32_t>(SetNumber(address, RecordKey::SizeClass(record.key)));
}

}  // namespace

Grouping::Grouping(std::vector<ListInfoType>* list) : list_(*list) {
  first_sets_.resize(list_.size(), 0);
  std::size_t slots = kFirstIndexSlots;
  while (list_.size() * 2 >= slots) slots *= 2;
  RebuildIndex(slots);
}

void Grouping::AddAllSets() {
  record_store::ForEachRecord(
      [this](std::uint64_t address, const Record& record) { AddRecord(address, record); });
}

void Grouping::AddRecord(std::uint64_t address, const Record& record) {
  if (RecordKey::IsKept(record.key)) return;
  if (record.backtrace == 0) {
    async_safe_format_log(ANDROID_LOG_ERROR, kLogTag,
                          "GetUniqueList:frameInfo is null, hashIndex = %zu",
                          static_cast<std::size_t>(PointerData::kEmptyBacktraceIndex));
    return;
  }
  FrameInfoType* const backtrace = record_store::backtraces.At(record.backtrace);
  const std::uint32_t set = SetOf(address, record);
  const std::uint32_t group = FindOrAddGroup(address, record, backtrace, set);
  if (set < first_sets_[group]) {
    first_sets_[group] = set;
    list_[group].pointer = address;
  }
}

std::uint32_t Grouping::FindOrAddGroup(std::uint64_t address, const Record& record,
                                       FrameInfoType* backtrace, std::uint32_t set) {
  const std::uint64_t size = record.size & kSizeMask;
  const bool zygote_child = (record.size & kZygoteChildBit) != 0;
  const std::size_t mask = index_.size() - 1;
  std::size_t slot = GroupHash(backtrace, record.size) & mask;
  for (; index_[slot] != 0; slot = (slot + 1) & mask) {
    ListInfoType& group = list_[index_[slot] - 1];
    if (group.frame_info != backtrace || group.size != size || group.zygote_child != zygote_child) {
      continue;
    }
    ++group.num;
    return index_[slot] - 1;
  }
  list_.push_back({address, 1, size, zygote_child, backtrace});
  first_sets_.push_back(set);
  const auto number = static_cast<std::uint32_t>(list_.size());
  index_[slot] = number;
  if (list_.size() * 2 >= index_.size()) RebuildIndex(index_.size() * 2);
  return number - 1;
}

void Grouping::RebuildIndex(std::size_t slots) {
  index_.assign(slots, 0U);
  const std::size_t mask = slots - 1;
  for (std::size_t i = 0; i < list_.size(); ++i) {
    const ListInfoType& group = list_[i];
    if (group.frame_info == nullptr) continue;
    const auto word =
        static_cast<std::uint32_t>(group.size | (group.zygote_child ? kZygoteChildBit : 0));
    std::size_t slot = GroupHash(group.frame_info, word) & mask;
    while (index_[slot] != 0) slot = (slot + 1) & mask;
    index_[slot] = static_cast<std::uint32_t>(i + 1);
  }
}

/// Returns index + 1 of the first list of `backtrace`; 0 if there is none. `note` holds it,
/// but is never reset: it is valid only if the list belongs to this backtrace.
std::uint32_t Grouping::FirstTimeList(const FrameInfoType* backtrace) const {
  const std::uint32_t number = backtrace->note;
  const bool is_valid =
      number != 0 && number <= time_lists_.size() && time_lists_[number - 1].backtrace == backtrace;
  return is_valid ? number : 0;
}

/// Returns the list of `backtrace` in `set`, or null.
Grouping::TimeList* Grouping::FindTimes(const FrameInfoType* backtrace, std::uint32_t set) {
  std::uint32_t number = FirstTimeList(backtrace);
  while (number != 0) {
    TimeList& list = time_lists_[number - 1];
    if (list.set == set) return &list;
    number = list.next_list;
  }
  return nullptr;
}

void Grouping::AddTimeList(FrameInfoType* backtrace, std::uint32_t set) {
  if (FindTimes(backtrace, set) != nullptr) return;
  time_lists_.push_back({backtrace, set, FirstTimeList(backtrace), 0, 0, 0});
  backtrace->note = static_cast<std::uint32_t>(time_lists_.size());
}

void Grouping::CollectTimes() {
  for (std::size_t i = 0; i < list_.size(); ++i) {
    if (list_[i].frame_info != nullptr) AddTimeList(list_[i].frame_info, first_sets_[i]);
  }
  record_store::ForEachRecord([this](std::uint64_t address, const Record& record) {
    if (record.backtrace == 0) return;
    const FrameInfoType* const backtrace = record_store::backtraces.At(record.backtrace);
    TimeList* const list = FindTimes(backtrace, SetOf(address, record));
    if (list != nullptr) AddTime(list, record.time + kRecordTimeBase);
  });
}

void Grouping::AddTime(TimeList* list, std::int64_t time) {
  if (list->count == PointerData::kMaxTimes) return;
  const auto node = static_cast<std::uint32_t>(times_.size());
  times_.push_back({time, 0});
  if (list->count++ == 0) {
    list->first = node;
  } else {
    times_[list->last].next = node;
  }
  list->last = node;
}

void Grouping::CopyTimes(std::size_t i, std::vector<std::int64_t>* times) {
  const TimeList* const list = FindTimes(list_[i].frame_info, first_sets_[i]);
  if (list == nullptr) return;
  std::uint32_t node = list->first;
  for (std::uint32_t n = 0; n < list->count; ++n, node = times_[node].next) {
    times->push_back(times_[node].time);
  }
}
