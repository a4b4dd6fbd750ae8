// Reading one block's backtrace, and the locks around fork.
#include "platform/bounds_checked.h"
#include "platform/fork_policy.h"
#include "records/PointerData.h"
#include "records/PointerSet.h"
#include "records/record_store.h"
#include "records/set_selection.h"

std::size_t PointerData::GetFrames(const void* pointer, std::uintptr_t* frames,
                                   std::size_t max_frames) {
  const auto address = reinterpret_cast<std::uint64_t>(pointer);
  // Intentional: for the other kinds no size is known here, and only their smallest class is looked
  // at.
  const SetChoice choice = SelectSet(address, ClassSize(pointer, 0));
  RecordPage* const page = RecordPages::Find(address);
  if (choice.set == nullptr || page == nullptr) return 0;
  const record_store::PageGuard guard(page, choice.set->pointer_mutex,
                                      record_key.Get() == kHoldsStore);
  if (page->generation() != record_store::Generation()) return 0;
  const Record* const record = page->Find(RecordKey::Of(address, choice.size_class));
  if (record == nullptr || record->backtrace == 0) return 0;
  const FrameInfoType* const backtrace = record_store::backtraces.At(record->backtrace);
  const std::size_t count = backtrace->num_frames < max_frames ? backtrace->num_frames : max_frames;
  const std::size_t bytes = count * sizeof(std::uintptr_t);
  return platform::memcpy_s(frames, bytes, backtrace->pcs(), bytes) == 0 ? count : 0;
}

void PointerData::PrepareFork() {
  PointerSet* const all = PointerSet::All();
  if (all == nullptr) return;
  // A thread that is marked already stays so: a signal handler that forks has interrupted the
  // store.
  const bool marks = record_key.Get() == nullptr;
  // Before the first lock: a signal handler that interrupts this must not wait for one.
  if (marks) record_key.Set(ThreadMark::kInside);
  for (std::uint64_t i = 0; i < PointerSet::kCount; ++i) {
    all[i].spare_mutex.lock();
    all[i].pointer_mutex.lock();
    all[i].frame_mutex.lock();
  }
  RecordPages::WaitForOperations();
  if (marks) record_key.Set(kHoldsStore);
}

namespace {

/// Marks the thread as inside the store while the locks are released, and unmarks it at the end.
class LettingGo {
 public:
  LettingGo() : marked_(record_key.Get() == kHoldsStore) {
    if (marked_) record_key.Set(ThreadMark::kInside);
  }
  ~LettingGo() {
    if (marked_) record_key.Set(nullptr);
  }
  LettingGo(const LettingGo&) = delete;
  LettingGo& operator=(const LettingGo&) = delete;

 private:
  const bool marked_;
};

}  // namespace

void PointerData::PostForkParent() {
  PointerSet* const all = PointerSet::All();
  if (all == nullptr) return;
  const LettingGo letting_go;
  for (std::uint64_t i = 0; i < PointerSet::kCount; ++i) {
    all[i].spare_mutex.unlock();
    all[i].pointer_mutex.unlock();
    all[i].frame_mutex.unlock();
  }
}

void PointerData::PostForkChild() {
  PointerSet* const all = PointerSet::All();
  if (all == nullptr) return;
  const LettingGo letting_go;
  // Held by the forking thread or free: either way an unlock after an attempt leaves it free.
  const auto release = [](SetMutex& mutex) {
    static_cast<void>(mutex.try_lock());
    mutex.unlock();
  };
  const bool all_locks = platform::ForkedChildFreesLocks();
  for (std::uint64_t i = 0; i < PointerSet::kCount; ++i) {
    release(all[i].frame_mutex);
    release(all[i].pointer_mutex);
    release(all[i].spare_mutex);
    if (!all_locks) continue;
    release(all[i].java_pointer_mutex);
    release(all[i].unwind_mutex);
  }
  if (all_locks) release(InitialiseLock());
  // Another thread may have taken a page's lock to find out that it must wait.
  RecordPages::FreeLocksInChild();
}
