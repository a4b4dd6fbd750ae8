// SPDX-License-Identifier: Apache-2.0
// The Java-native tables of a set, and the readers' lock.
#include "records/PointerSet.h"

#include <mutex>
#include <new>
#include <utility>

#include "records/record_store.h"

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

std::atomic<PointerSet*> PointerSet::all_{nullptr};

PointerSet* PointerSet::MakeAll() {
  if (All() != nullptr) return All();
  auto* const sets = new (std::nothrow) PointerSet[kCount];
  if (sets == nullptr) return nullptr;
  for (std::uint64_t i = 0; i < kCount; ++i) {
    sets[i].lower_size = kSizeBounds[i % kSizeClasses];
    sets[i].upper_size = kSizeBounds[i % kSizeClasses + 1];
  }
  all_.store(sets, std::memory_order_release);
  return sets;
}

void PointerSet::AddJavaNative(std::uint64_t address, std::uint64_t encoded_size,
                               std::vector<unwindstack::FrameData>* frames, bool held) try {
  const SetLock frame_lock(frame_mutex, held);
  std::uint64_t unwind_index;
  std::uint32_t generation;
  {
    const std::lock_guard<SetMutex> guard(unwind_mutex);
    generation = SyncUnwindFrames();
    const auto found = unwind_key_to_index.find({frames->size(), frames->data()});
    if (found != unwind_key_to_index.end()) {
      unwind_index = found->second;
      ++unwind_frames[unwind_index].references;
    } else {
      unwind_index = cur_unwind_index++;
      UnwindFrameInfoType& info = unwind_frames[unwind_index];
      info.references = 1;
      info.frames = std::move(*frames);
      // The key points to the frames of the map's entry, which never moves.
      unwind_key_to_index.emplace(UnwindFrameKeyType{info.frames.size(), info.frames.data()},
                                  unwind_index);
    }
  }
  const std::lock_guard<SetMutex> guard(java_pointer_mutex);
  if (SyncJavaPointers() != generation) return;  // a clear has removed the stack
  java_pointers[address] = {encoded_size, unwind_index};
} catch (const std::bad_alloc&) {
  // The block keeps its native record.
}

std::uint32_t PointerSet::SyncJavaPointers() {
  const std::uint32_t now = record_store::Generation();
  if (java_pointers_generation_ != now) {
    java_pointers.clear();
    java_pointers_generation_ = now;
  }
  return now;
}

std::uint32_t PointerSet::SyncUnwindFrames() {
  const std::uint32_t now = record_store::Generation();
  if (unwind_generation_ != now) {
    unwind_key_to_index.clear();
    unwind_frames.clear();
    cur_unwind_index = 2;
    unwind_generation_ = now;
  }
  return now;
}

FrameInfoListWithLock::FrameInfoListWithLock(bool held) : held_(held) {
  PointerSet* const sets = PointerSet::All();
  if (sets == nullptr || held_) return;
  for (std::uint64_t i = 0; i < PointerSet::kCount; ++i) sets[i].pointer_mutex.lock();
  for (std::uint64_t i = 0; i < PointerSet::kCount; ++i) sets[i].frame_mutex.lock();
  RecordPages::WaitForOperations();
}

FrameInfoListWithLock::~FrameInfoListWithLock() {
  PointerSet* const sets = PointerSet::All();
  if (sets == nullptr || held_) return;
  for (std::uint64_t i = 0; i < PointerSet::kCount; ++i) sets[i].frame_mutex.unlock();
  for (std::uint64_t i = 0; i < PointerSet::kCount; ++i) sets[i].pointer_mutex.unlock();
}
