// SPDX-License-Identifier: Apache-2.0
// The store's locks around fork, and between malloc_disable and malloc_enable.
#include "platform/policies.h"
#include "records/PointerData.h"
#include "records/PointerSet.h"
#include "records/profile.h"
#include "records/record_pages.h"
#include "records/record_store.h"

namespace {

/// If the thread holds the store: marks it as inside the store while the locks are released, then
/// removes the mark.
class ReleasingStore {
 public:
  ReleasingStore() : held_(record_key.Get() == kHoldsStore) {
    if (held_) record_key.Set(ThreadMark::kInside);
  }
  ~ReleasingStore() {
    if (held_) record_key.Set(nullptr);
  }
  ReleasingStore(const ReleasingStore&) = delete;
  ReleasingStore& operator=(const ReleasingStore&) = delete;

 private:
  const bool held_;
};

}  // namespace

void PointerData::PrepareFork() {
  PointerSet* const all = PointerSet::All();
  if (all == nullptr) return;
  // A thread with a mark keeps it: a signal handler that forks may have interrupted the store.
  const bool marks = record_key.Get() == nullptr;
  // Set before the first lock, so that a signal handler that interrupts this waits for no lock.
  if (marks) record_key.Set(ThreadMark::kInside);
  for (std::uint64_t i = 0; i < PointerSet::kCount; ++i) {
    all[i].spare_mutex.lock();
    all[i].pointer_mutex.lock();
    all[i].frame_mutex.lock();
  }
  RecordPages::WaitForOperations();
  if (marks) record_key.Set(kHoldsStore);
}

void PointerData::PostForkParent() {
  PointerSet* const all = PointerSet::All();
  if (all == nullptr) return;
  const ReleasingStore releasing;
  for (std::uint64_t i = 0; i < PointerSet::kCount; ++i) {
    all[i].spare_mutex.unlock();
    all[i].pointer_mutex.unlock();
    all[i].frame_mutex.unlock();
  }
}

void PointerData::PostForkChild() {
  PointerSet* const all = PointerSet::All();
  if (all == nullptr) return;
  const ReleasingStore releasing;
  // Frees the lock whether the forking thread held it or not.
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
  // Another thread of the parent may have held a page's lock when it found that it must wait.
  RecordPages::FreeLocksInChild();
  record_store::backtraces.Unpin();
  profile::FreeLocksInChild();
}
