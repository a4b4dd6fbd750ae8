// Groups of live blocks, in one pass. See records/grouping.h.
#include "records/grouping.h"

#include <algorithm>

#include "async_safe/log.h"
#include "records/PointerData.h"

namespace {

constexpr char kTag[] = "MemLeak.Native";
constexpr std::uint64_t kSizeMask = kZygoteChildBit - 1;
/// Slots ahead of the one being read whose backtraces are fetched: far enough for memory to answer.
constexpr std::uint64_t kFetchAhead = 24;
constexpr std::size_t kFirstIndexSlots = 1024;

/// The part of a size word that tells groups apart: size and zygote mark.
std::uint64_t GroupWord(std::uint64_t size_word) {
  return size_word & (kSizeMask | kZygoteChildBit);
}

std::size_t GroupHash(std::uint64_t fingerprint, std::uint64_t group_word) {
  const std::uint64_t mixed = (fingerprint ^ (group_word * 0x9E3779B97F4A7C15U));
  return static_cast<std::size_t>((mixed * 0xD6E8FEB86659FD93U) >> 32);
}

void LogNoFrames(std::uint64_t hash_index) {
  async_safe_format_log(ANDROID_LOG_ERROR, kTag, "GetUniqueList:frameInfo is null, hashIndex = %zu",
                        static_cast<std::size_t>(hash_index));
}

}  // namespace

Grouping::Grouping(std::vector<ListInfoType>* list) : list_(*list) {
  index_.resize(kFirstIndexSlots);
  while (list_.size() * 2 >= index_.size()) index_.resize(index_.size() * 2);
  GrowIndex();
}

void Grouping::AddAllSets() {
  PointerSet* const sets = PointerData::sets();
  if (sets == nullptr) return;
  // A clear that comes while this runs finds the tables as they were before it.
  const std::uint64_t generation = PointerSet::CurrentGeneration();
  std::uint64_t records = 0;
  for (std::uint64_t i = 0; i < PointerData::kSetCount; ++i) {
    sets[i].SyncPointers(generation);
    sets[i].SyncFrames(generation);
    records += sets[i].pointers.size();
  }
  times_.reserve(records);
  for (std::uint64_t i = 0; i < PointerData::kSetCount; ++i) AddSet(&sets[i]);
}

void Grouping::AddSet(PointerSet* set) {
  const Record* const slots = set->pointers.slots();
  const std::uint64_t capacity = set->pointers.capacity();
  for (std::uint64_t i = 0; i < capacity; ++i) {
    if (i + kFetchAhead < capacity) {
      __builtin_prefetch(BacktraceRef::Backtrace(slots[i + kFetchAhead].backtrace), 1);
    }
    const Record& record = slots[i];
    if (record.backtrace == 0) continue;
    FrameInfoType* const backtrace = BacktraceRef::Backtrace(record.backtrace);
    if (backtrace == nullptr) {
      LogNoFrames(BacktraceRef::HashIndex(record.backtrace));
    } else if (backtrace->references == 0 || backtrace->num_frames == 0) {
      async_safe_format_log(ANDROID_LOG_ERROR, kTag, "Pointer 0x%lx hashIndex %zu does not exist.",
                            static_cast<unsigned long>(record.address),
                            static_cast<std::size_t>(backtrace->hash_index));
      LogNoFrames(backtrace->hash_index);
    } else {
      AddRecord(record, backtrace);
    }
  }
  for (std::uint64_t i = 0; i < set->kept_times.capacity(); ++i) {
    const Record& kept = set->kept_times.slots()[i];
    if (kept.backtrace == 0) continue;
    const FrameInfoType* const backtrace = BacktraceRef::Backtrace(kept.backtrace);
    if (FindNote(backtrace) != nullptr) AddTime(&notes_[backtrace->report_note - 1], kept.time);
  }
}

void Grouping::AddRecord(const Record& record, FrameInfoType* backtrace) {
  Note* const note = NoteOf(backtrace);
  AddTime(note, record.time);
  const std::uint64_t word = GroupWord(record.size);
  if (note->last_size_word == word) {
    ++list_[note->last_group].num;
    return;
  }
  note->last_group = FindOrAddGroup(record, backtrace);
  note->last_size_word = word;
}

const Grouping::Note* Grouping::FindNote(const FrameInfoType* backtrace) const {
  const std::uint32_t number = backtrace->report_note;
  if (number == 0 || number > notes_.size()) return nullptr;
  const Note& note = notes_[number - 1];
  return note.backtrace == backtrace ? &note : nullptr;
}

Grouping::Note* Grouping::NoteOf(FrameInfoType* backtrace) {
  const Note* const found = FindNote(backtrace);
  if (found != nullptr) return &notes_[backtrace->report_note - 1];
  // No size word has its high bits set, so none matches this first one.
  notes_.push_back({backtrace, UINT64_MAX, 0, 0, 0, 0});
  backtrace->report_note = static_cast<std::uint32_t>(notes_.size());
  return &notes_.back();
}

void Grouping::AddTime(Note* note, std::int64_t time) {
  if (note->time_count == PointerData::kMaxTimes) return;
  const auto node = static_cast<std::uint32_t>(times_.size());
  times_.push_back({time, 0});
  if (note->time_count++ == 0) {
    note->first_time = node;
  } else {
    times_[note->last_time].next = node;
  }
  note->last_time = node;
}

std::uint32_t Grouping::FindOrAddGroup(const Record& record, FrameInfoType* backtrace) {
  const std::uint64_t size = record.size & kSizeMask;
  const bool zygote_child = (record.size & kZygoteChildBit) != 0;
  const FrameKeyType key{backtrace->num_frames, backtrace->pcs()};
  const std::size_t mask = index_.size() - 1;
  std::size_t slot = GroupHash(backtrace->fingerprint, GroupWord(record.size)) & mask;
  for (; index_[slot] != 0; slot = (slot + 1) & mask) {
    ListInfoType& group = list_[index_[slot] - 1];
    const FrameInfoType* const other = group.frame_info;
    if (group.size != size || group.zygote_child != zygote_child) continue;
    if (other->fingerprint != backtrace->fingerprint) continue;
    if (!FrameKeyEqual(key, {other->num_frames, other->pcs()})) continue;
    ++group.num;
    return index_[slot] - 1;
  }
  list_.push_back({record.address, 1, size, zygote_child, backtrace});
  const auto number = static_cast<std::uint32_t>(list_.size());
  index_[slot] = number;
  if (list_.size() * 2 >= index_.size()) {
    index_.resize(index_.size() * 2);
    GrowIndex();
  }
  return number - 1;
}

void Grouping::GrowIndex() {
  std::fill(index_.begin(), index_.end(), 0U);
  const std::size_t mask = index_.size() - 1;
  for (std::size_t i = 0; i < list_.size(); ++i) {
    const ListInfoType& group = list_[i];
    if (group.frame_info == nullptr) continue;
    const std::uint64_t word = group.size | (group.zygote_child ? kZygoteChildBit : 0);
    std::size_t slot = GroupHash(group.frame_info->fingerprint, word) & mask;
    while (index_[slot] != 0) slot = (slot + 1) & mask;
    index_[slot] = static_cast<std::uint32_t>(i + 1);
  }
}

void Grouping::CopyTimes(std::size_t i, std::vector<std::int64_t>* times) const {
  const Note* const note = FindNote(list_[i].frame_info);
  if (note == nullptr) return;
  std::uint32_t node = note->first_time;
  for (std::uint32_t n = 0; n < note->time_count; ++n, node = times_[node].next) {
    times->push_back(times_[node].time);
  }
}
