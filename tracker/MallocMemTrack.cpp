// SPDX-License-Identifier: Apache-2.0
// The exported allocator entries, start-up and shut-down.
//
// The C library calls them in place of its own allocator, on every thread. While not recording, an
// entry is a load, a test and a jump into the C library's table. While recording, it must be one
// real frame directly above PointerData::Add: the frame walk skips exactly the levels entry, Add
// and AddBacktrace. So what entries share is forced inline.
#include "tracker/MallocMemTrack.h"

#include <pthread.h>

#include <cerrno>
#include <new>

#include "async_safe/log.h"
#include "backtrace/Backtrace.h"
#include "platform/published_state.h"
#include "plthooks/trampoline.h"
#include "records/PointerData.h"
#include "records/PointerSet.h"
#include "records/profile.h"
#include "records/record_store.h"
#include "tracker/DebugData.h"
#include "tracker/SignalControl.h"
#include "tracker/control/MemTrackControl.h"
#include "tracker/control/RecordingScope.h"

// The slow path of an entry is a separate function that the entry tail-calls, so that an idle entry
// makes no stack frame. Builds without tail calls inline it into the entry. In both cases there is
// one frame, and its return address is in the program.
#if defined(__OPTIMIZE__) && !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
#define SLOW_PATH __attribute__((noinline))
#else
#define SLOW_PATH TRACKER_INLINE
#endif

namespace {

/// While recording, requests of this size or more are refused: a record keeps 31 bits of the size.
constexpr std::size_t kSizeLimit = std::size_t{1} << 31;

/// The first half of the activity test: one load. Likely, since most processes never record.
TRACKER_INLINE bool IsIdle(const MemTrackControl* control) {
  return __builtin_expect(static_cast<long>(!control->GetHookStart()), 1L) != 0;
}

TRACKER_INLINE void AddRecord(const void* pointer, std::size_t size) {
  PointerData* store = DebugData::GetInstance()->pointer();
  if (store != nullptr) store->Add(pointer, size);
}

TRACKER_INLINE void RemoveRecord(const void* pointer) {
  PointerData* store = DebugData::GetInstance()->pointer();
  if (store != nullptr) store->Remove(pointer, 0);
}

/// Returns the size to request from the C library; 0, with errno set, if the request is refused.
TRACKER_INLINE std::size_t AcceptedSize(std::size_t size) {
  if (size >= kSizeLimit) {
    errno = ENOMEM;
    return 0;
  }
  return size == 0 ? 1 : size;
}

TRACKER_INLINE bool IsBadAlignment(std::size_t alignment) {
  return (alignment & (alignment - 1)) != 0;  // 0 is passed on to memalign
}

TRACKER_INLINE void* RecordMalloc(const MemTrackControl* control, std::size_t size) {
  const RecordingScope scope(control, RecordingScope::ThreadIsUnmarked());
  const std::size_t accepted = AcceptedSize(size);
  if (accepted == 0) return nullptr;
  void* pointer = control->dispatch()->malloc(accepted);
  if (pointer != nullptr) AddRecord(pointer, accepted);
  return pointer;
}

TRACKER_INLINE void* RecordMemalign(const MemTrackControl* control, std::size_t alignment,
                                    std::size_t size) {
  const RecordingScope scope(control, RecordingScope::ThreadIsUnmarked());
  const std::size_t accepted = AcceptedSize(size);
  if (accepted == 0) return nullptr;
  void* pointer = control->dispatch()->memalign(alignment, accepted);
  if (pointer != nullptr) AddRecord(pointer, accepted);
  return pointer;
}

SLOW_PATH void* SlowMalloc(const MemTrackControl* control, std::size_t size) {
  if (!control->ThreadEnabled()) return control->dispatch()->malloc(size);
  return RecordMalloc(control, size);
}

/// Also while paused: earlier records are removed after recording has stopped.
SLOW_PATH void SlowFree(const MemTrackControl* control, void* pointer) {
  const RecordingScope scope(control);
  // The record first: once freed, the address may belong to another thread.
  RemoveRecord(pointer);
  control->dispatch()->free(pointer);
}

SLOW_PATH void* SlowCalloc(const MemTrackControl* control, std::size_t count, std::size_t size) {
  if (!control->ThreadEnabled()) return control->dispatch()->calloc(count, size);
  const RecordingScope scope(control, RecordingScope::ThreadIsUnmarked());
  std::size_t bytes = 0;
  if (__builtin_mul_overflow(count, size, &bytes)) {
    errno = ENOMEM;
    return nullptr;
  }
  const std::size_t accepted = AcceptedSize(bytes);
  if (accepted == 0) return nullptr;
  void* pointer = control->dispatch()->calloc(1, accepted);
  if (pointer != nullptr) AddRecord(pointer, accepted);
  return pointer;
}

SLOW_PATH void* SlowRealloc(const MemTrackControl* control, void* pointer, std::size_t size) {
  if (!control->ThreadEnabled()) return control->dispatch()->realloc(pointer, size);
  if (pointer == nullptr) return RecordMalloc(control, size);
  const RecordingScope scope(control, RecordingScope::ThreadIsUnmarked());
  if (size == 0) {
    RemoveRecord(pointer);
    control->dispatch()->free(pointer);
    return nullptr;
  }
  if (AcceptedSize(size) == 0) return nullptr;
  // The old record first. If realloc fails, the block stays without a record; the other order could
  // remove the record of another thread's new block.
  RemoveRecord(pointer);
  void* moved = control->dispatch()->realloc(pointer, size);
  if (moved != nullptr) AddRecord(moved, size);
  return moved;
}

SLOW_PATH void* SlowMemalign(const MemTrackControl* control, std::size_t alignment,
                             std::size_t size) {
  if (!control->ThreadEnabled()) return control->dispatch()->memalign(alignment, size);
  return RecordMemalign(control, alignment, size);
}

SLOW_PATH void* SlowAlignedAlloc(const MemTrackControl* control, std::size_t alignment,
                                 std::size_t size) {
  if (!control->ThreadEnabled()) return control->dispatch()->aligned_alloc(alignment, size);
  if (IsBadAlignment(alignment)) {
    errno = EINVAL;
    return nullptr;
  }
  return RecordMemalign(control, alignment, size);
}

SLOW_PATH int SlowPosixMemalign(const MemTrackControl* control, void** result,
                                std::size_t alignment, std::size_t size) {
  if (!control->ThreadEnabled()) {
    return control->dispatch()->posix_memalign(result, alignment, size);
  }
  if (IsBadAlignment(alignment)) return EINVAL;
  const int saved_errno = errno;
  *result = RecordMemalign(control, alignment, size);
  errno = saved_errno;
  return *result != nullptr ? 0 : ENOMEM;
}

SLOW_PATH std::size_t SlowUsableSize(const MemTrackControl* control, const void* pointer) {
  if (pointer == nullptr || !control->ThreadEnabled()) {
    return control->dispatch()->malloc_usable_size(pointer);
  }
  const RecordingScope scope(control, RecordingScope::ThreadIsUnmarked());
  return control->dispatch()->malloc_usable_size(pointer);
}

/// protocol::CountRecords.
void PublishRecordCount() {
  platform::PublishCount(RecordPages::Count(record_store::Generation()),
                         unreported_blocks.load(std::memory_order_relaxed));
}

void PrepareFork() {
  DebugData::GetInstance()->PrepareFork();
}
void PostForkParent() {
  DebugData::GetInstance()->PostForkParent();
}
void PostForkChild() {
  DebugData::GetInstance()->PostForkChild();
}

/// Registers the fork handlers, which cannot be unregistered, in the first of several start-ups.
/// Returns false if there is no memory. Only from track_initialize.
bool InitAtFork() {
  static bool registered = false;
  if (!registered) registered = pthread_atfork(PrepareFork, PostForkParent, PostForkChild) == 0;
  return registered;
}

}  // namespace

bool track_initialize(const MallocDispatch* table, bool* zygote_child, const char* /*options*/) {
  if (table == nullptr || zygote_child == nullptr) return false;
  if (!InitAtFork()) return false;
  MemTrackControl* control = MemTrackControl::CreateInstance();
  if (control == nullptr) return false;
  control->set_zygote_child(zygote_child);
  control->set_dispatch(table);
  if (!control->DebugDisableInit()) {
    MemTrackControl::DestroyInstance();
    return false;
  }
  if (!DebugData::Initialize(DebugData::GetInstance())) {
    DebugData::Release();
    control->DeleteKeys();
    MemTrackControl::DestroyInstance();
    return false;
  }
  lumora::plthooks::prepare_hook_stack();
  platform::FindLoader(SwitchOff, PublishRecordCount);
  SignalActionsInit();
  BacktraceStartup();
  profile::Prepare();
  return true;
}

void track_finalize() {
  MemTrackControl* control = MemTrackControl::GetInstance();
  if (control == nullptr) return;
  control->ConfigHookStatus(false, false);
  control->ConfigPltHookStatus(false, false);
  control->DisableThread();
  SignalActionsRestore();
  DebugData::Release();
  control->DeleteKeys();
  // The instance and its dispatch table stay: other threads may be inside an entry.
}

void* track_malloc(std::size_t size) {
  const MemTrackControl* control = MemTrackControl::GetInstance();
  if (IsIdle(control)) return control->dispatch()->malloc(size);
  return SlowMalloc(control, size);
}

void track_free(void* pointer) {
  const MemTrackControl* control = MemTrackControl::GetInstance();
  // With all flags clear, there are no records.
  if (IsIdle(control) && !control->GetHookEverStarted() && !control->GetPltHookEverStarted()) {
    return control->dispatch()->free(pointer);
  }
  SlowFree(control, pointer);
}

void* track_calloc(std::size_t count, std::size_t size) {
  const MemTrackControl* control = MemTrackControl::GetInstance();
  if (IsIdle(control)) return control->dispatch()->calloc(count, size);
  return SlowCalloc(control, count, size);
}

void* track_realloc(void* pointer, std::size_t size) {
  const MemTrackControl* control = MemTrackControl::GetInstance();
  if (IsIdle(control)) return control->dispatch()->realloc(pointer, size);
  return SlowRealloc(control, pointer, size);
}

void* track_memalign(std::size_t alignment, std::size_t size) {
  const MemTrackControl* control = MemTrackControl::GetInstance();
  if (IsIdle(control)) return control->dispatch()->memalign(alignment, size);
  return SlowMemalign(control, alignment, size);
}

void* track_aligned_alloc(std::size_t alignment, std::size_t size) {
  const MemTrackControl* control = MemTrackControl::GetInstance();
  if (IsIdle(control)) return control->dispatch()->aligned_alloc(alignment, size);
  return SlowAlignedAlloc(control, alignment, size);
}

int track_posix_memalign(void** result, std::size_t alignment, std::size_t size) {
  const MemTrackControl* control = MemTrackControl::GetInstance();
  if (IsIdle(control)) {
    return control->dispatch()->posix_memalign(result, alignment, size);
  }
  return SlowPosixMemalign(control, result, alignment, size);
}

std::size_t track_malloc_usable_size(const void* pointer) {
  const MemTrackControl* control = MemTrackControl::GetInstance();
  if (IsIdle(control)) return control->dispatch()->malloc_usable_size(pointer);
  return SlowUsableSize(control, pointer);
}

struct mallinfo track_mallinfo() {
  return MemTrackControl::GetInstance()->dispatch()->mallinfo();
}

int track_mallopt(int parameter, int value) {
  return MemTrackControl::GetInstance()->dispatch()->mallopt(parameter, value);
}

int track_malloc_iterate(std::uintptr_t base, std::size_t size,
                         void (*callback)(std::uintptr_t, std::size_t, void*), void* argument) {
  return MemTrackControl::GetInstance()->dispatch()->malloc_iterate(base, size, callback, argument);
}

int track_malloc_info(int options, std::FILE* stream) {
  const MemTrackControl* control = MemTrackControl::GetInstance();
  // Intentional: no output. The C library must not walk its heap while the thread records.
  if (IsRecording(control)) return 0;
  return control->dispatch()->malloc_info(options, stream);
}

void track_malloc_disable() {
  MemTrackControl::GetInstance()->dispatch()->malloc_disable();
  if (DebugData::GetInstance()->pointer() != nullptr) PointerData::PrepareFork();
}

void track_malloc_enable() {
  if (DebugData::GetInstance()->pointer() != nullptr) PointerData::PostForkParent();
  MemTrackControl::GetInstance()->dispatch()->malloc_enable();
}

std::size_t track_malloc_backtrace(void* pointer, std::uintptr_t* frames, std::size_t max_frames) {
  const MemTrackControl* control = MemTrackControl::GetInstance();
  if (pointer == nullptr || !IsRecording(control)) return 0;
  const RecordingScope scope(control);
  return PointerData::GetFrames(pointer, frames, max_frames);
}

bool RegistryAllocateTracker(std::uint32_t index, void (*callback)()) {
  if (callback == nullptr) return false;
  // Before the check of the index: a refused call creates the instance too.
  MemTrackControl* control = MemTrackControl::CreateInstance();
  if (control == nullptr || index >= MemTrackControl::kTrackerSlots) return false;
  control->set_tracker(index, callback);
  return true;
}
