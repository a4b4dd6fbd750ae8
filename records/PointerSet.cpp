// Emptying of a set's tables, the keys of its Java-native backtraces, and the readers' lock.
#include "records/PointerSet.h"

#include "records/PointerData.h"
#include "tracker/MemTrackControl.h"

std::atomic<std::uint64_t> table_generation{0};

SetMutex& InitialiseLock() {
  static SetMutex lock;
  return lock;
}

std::size_t UnwindFrameKeyHash::operator()(const UnwindFrameKeyType& key) const {
  std::uint64_t hash = 0;
  const std::uint64_t count = key.num_frames < 5 ? key.num_frames : 5;
  for (std::uint64_t i = 0; i < count; ++i) hash ^= key.frames[i].rel_pc;
  return hash;
}

bool UnwindFrameKeyEqual::operator()(const UnwindFrameKeyType& a,
                                     const UnwindFrameKeyType& b) const {
  if (a.num_frames != b.num_frames) return false;
  for (std::uint64_t i = 0; i < a.num_frames; ++i) {
    if (a.frames[i].rel_pc != b.frames[i].rel_pc) return false;
  }
  return true;
}

void PointerSet::EmptyPointers(std::uint64_t generation) {
  pointers.Clear();
  if (!kept_times.empty()) {
    // Its memory goes through free, which must not come back here for a lock.
    void* const mark = record_key.Get();
    record_key.Set(ThreadMark::kInside);
    kept_times.clear();
    record_key.Set(mark);
  }
  pointers_generation.store(generation, std::memory_order_relaxed);
}

void PointerSet::EmptyFrames(std::uint64_t generation) {
  frames.Clear();
  frames_generation.store(generation, std::memory_order_relaxed);
}

void PointerSet::SyncJavaTables() {
  SyncJavaPointers();
  SyncUnwindFrames();
}

std::uint64_t PointerSet::SyncJavaPointers() {
  const std::uint64_t now = CurrentGeneration();
  if (java_pointers_generation_ != now) {
    java_pointers.clear();
    java_pointers_generation_ = now;
  }
  return now;
}

std::uint64_t PointerSet::SyncUnwindFrames() {
  const std::uint64_t now = CurrentGeneration();
  if (unwind_generation_ != now) {
    unwind_key_to_index.clear();
    unwind_frames.clear();
    cur_unwind_index = BacktraceTable::kFirstIndex;
    unwind_generation_ = now;
  }
  return now;
}

std::int64_t PointerSet::TakeKeptTime(std::uint64_t address, const FrameInfoType* backtrace,
                                      std::int64_t otherwise) {
  const auto range = kept_times.equal_range(address);
  for (auto it = range.first; it != range.second; ++it) {
    if (it->second.backtrace != backtrace) continue;
    const std::int64_t time = it->second.time;
    kept_times.erase(it);
    return time;
  }
  return otherwise;
}

FrameInfoListWithLock::FrameInfoListWithLock() {
  PointerSet* const sets = PointerData::sets();
  if (sets == nullptr) return;
  for (std::uint64_t i = 0; i < PointerData::kSetCount; ++i) sets[i].pointer_mutex.lock();
  for (std::uint64_t i = 0; i < PointerData::kSetCount; ++i) sets[i].frame_mutex.lock();
}

FrameInfoListWithLock::~FrameInfoListWithLock() {
  PointerSet* const sets = PointerData::sets();
  if (sets == nullptr) return;
  for (std::uint64_t i = 0; i < PointerData::kSetCount; ++i) sets[i].frame_mutex.unlock();
  for (std::uint64_t i = 0; i < PointerData::kSetCount; ++i) sets[i].pointer_mutex.unlock();
}
