// Reading one block's backtrace, and the locks around fork.
#include <pthread.h>

#include <mutex>

#include "platform/bounds_checked.h"
#include "records/PointerData.h"
#include "records/PointerSet.h"
#include "records/record_store.h"
#include "records/set_selection.h"

std::size_t PointerData::GetFrames(const void* pointer, std::uintptr_t* frames,
                                   std::size_t max_frames) {
  const auto address = reinterpret_cast<std::uint64_t>(pointer);
  // Intentional: for the other kinds no size is known here, and only their smallest class is looked
  // at.
  const SetChoice choice = SelectSet(sets(), address, ClassSize(pointer, 0));
  RecordPage* const page = RecordPages::Find(address);
  if (choice.set == nullptr || page == nullptr) return 0;
  const record_store::PageGuard guard(page, *choice.set);
  if (page->generation() != record_store::Generation()) return 0;
  const Record* const record = page->Find(RecordKey::Of(address, choice.size_class));
  if (record == nullptr || record->backtrace == 0) return 0;
  const FrameInfoType* const backtrace = record_store::backtraces.At(record->backtrace);
  const std::size_t count = backtrace->num_frames < max_frames ? backtrace->num_frames : max_frames;
  const std::size_t bytes = count * sizeof(std::uintptr_t);
  return platform::memcpy_s(frames, bytes, backtrace->pcs(), bytes) == 0 ? count : 0;
}

void PointerData::PrepareFork() {
  PointerSet* const all = sets();
  if (all == nullptr) return;
  for (std::uint64_t i = 0; i < kSetCount; ++i) {
    all[i].spare_mutex.lock();
    all[i].pointer_mutex.lock();
    all[i].frame_mutex.lock();
  }
  RecordPages::WaitForOperations();
  SetRecordMark(RecordMark() | kHoldsStore);
}

void PointerData::PostForkParent() {
  PointerSet* const all = sets();
  if (all == nullptr) return;
  SetRecordMark(RecordMark() & ~kHoldsStore);
  for (std::uint64_t i = 0; i < kSetCount; ++i) {
    all[i].spare_mutex.unlock();
    all[i].pointer_mutex.unlock();
    all[i].frame_mutex.unlock();
  }
}

void PointerData::PostForkChild() {
  PointerSet* const all = sets();
  if (all == nullptr) return;
  SetRecordMark(RecordMark() & ~kHoldsStore);
  // Held by the forking thread or free: either way an unlock after an attempt leaves it free. The
  // Java-native tables' locks and the initialise lock are not touched: a child forked while
  // another thread held one of them inherits it locked. Intentional.
  const auto release = [](SetMutex& mutex) {
    static_cast<void>(mutex.try_lock());
    mutex.unlock();
  };
  for (std::uint64_t i = 0; i < kSetCount; ++i) {
    release(all[i].frame_mutex);
    release(all[i].pointer_mutex);
    release(all[i].spare_mutex);
  }
}
