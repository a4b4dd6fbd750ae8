// Reading one block's backtrace, and the locks around fork.
#include <mutex>

#include "platform/bounds_checked.h"
#include "platform/fork_policy.h"
#include "records/PointerData.h"
#include "records/PointerSet.h"
#include "records/set_selection.h"

std::size_t PointerData::GetFrames(const void* pointer, std::uintptr_t* frames,
                                   std::size_t max_frames) {
  const auto address = reinterpret_cast<std::uint64_t>(pointer);
  // For the other kinds no size is known here; only their smallest class is looked at (wanted).
  PointerSet* const set = SelectSet(sets(), address, ClassSize(pointer, 0));
  if (set == nullptr) return 0;
  const std::lock_guard<SetMutex> pointer_guard(set->pointer_mutex);
  const std::uint64_t generation = set->SyncPointers();
  const Record* const record = set->pointers.Find(address);
  if (record == nullptr) return 0;
  const FrameInfoType* const backtrace = BacktraceRef::Backtrace(record->backtrace);
  if (backtrace == nullptr) return 0;
  const std::lock_guard<SetMutex> frame_guard(set->frame_mutex);
  if (set->SyncFrames() != generation) return 0;
  const std::size_t count = backtrace->num_frames < max_frames ? backtrace->num_frames : max_frames;
  const std::size_t bytes = count * sizeof(std::uintptr_t);
  return platform::memcpy_s(frames, bytes, backtrace->pcs(), bytes) == 0 ? count : 0;
}

namespace {

/// Whether PrepareFork has marked its thread. Guarded by the locks that it holds.
bool marked_by_fork = false;

void UnmarkAfterFork() {
  if (!marked_by_fork) return;
  marked_by_fork = false;
  record_key.Set(nullptr);
}

}  // namespace

void PointerData::PrepareFork() {
  PointerSet* const all = sets();
  if (all == nullptr) return;
  for (std::uint64_t i = 0; i < kSetCount; ++i) {
    all[i].spare_mutex.lock();
    all[i].pointer_mutex.lock();
    all[i].frame_mutex.lock();
  }
  marked_by_fork = record_key.Get() == nullptr;
  if (marked_by_fork) record_key.Set(ThreadMark::kInside);
}

void PointerData::PostForkParent() {
  PointerSet* const all = sets();
  if (all == nullptr) return;
  UnmarkAfterFork();
  for (std::uint64_t i = 0; i < kSetCount; ++i) {
    all[i].spare_mutex.unlock();
    all[i].pointer_mutex.unlock();
    all[i].frame_mutex.unlock();
  }
}

void PointerData::PostForkChild() {
  PointerSet* const all = sets();
  if (all == nullptr) return;
  UnmarkAfterFork();
  // Held by the forking thread or free: either way an unlock after an attempt leaves it free.
  const auto release = [](SetMutex& mutex) {
    static_cast<void>(mutex.try_lock());
    mutex.unlock();
  };
  const bool all_locks = platform::ForkedChildFreesLocks();
  for (std::uint64_t i = 0; i < kSetCount; ++i) {
    release(all[i].frame_mutex);
    release(all[i].pointer_mutex);
    release(all[i].spare_mutex);
    if (!all_locks) continue;
    release(all[i].java_pointer_mutex);
    release(all[i].unwind_mutex);
  }
  if (all_locks) release(InitialiseLock());
}
