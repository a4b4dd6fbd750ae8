// Adding and removing records: the hot path of every tracked allocation.
#include "records/PointerData.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>
#include <new>

#include "async_safe/log.h"
#include "backtrace/Backtrace.h"
#include "records/PointerSet.h"
#include "records/set_selection.h"
#include "records/table_memory.h"
#include "tracker/MemTrackControl.h"

namespace {

std::atomic<PointerSet*> set_array{nullptr};

/// The size as it is stored: with the zygote mark, or 0 when nobody has said whether this process
/// is a zygote child (wanted: such a record reads as size 0).
std::uint64_t EncodeSize(std::size_t size) {
  const bool* zygote_child = MemTrackControl::GetMallocZygoteChild();
  if (zygote_child == nullptr) return 0;
  // The flag is declared bool, but it is its owner's contract that four bytes can be read.
  std::uint32_t value;
  std::memcpy(&value, zygote_child, sizeof(value));
  return value != 0 ? size | kZygoteChildBit : size;
}

bool HasBacktrace(std::uintptr_t word) {
  return BacktraceRef::Backtrace(word) != nullptr;
}

/// Files the record of a new block. False when the table has no room for it. A clear between the
/// capture of the backtrace and now leaves no record: the block counts as made before the clear.
__attribute__((always_inline)) inline bool StoreRecord(PointerSet* set, std::uint64_t address,
                                                       std::uint64_t encoded_size,
                                                       const BacktraceRef& backtrace, bool held) {
  const SetLock lock(set->pointer_mutex, held);
  const std::uint64_t generation = set->SyncPointers();
  const bool has_backtrace = HasBacktrace(backtrace.word);
  if (has_backtrace && backtrace.generation != generation) return true;
  bool inserted = false;
  Record* const record = set->pointers.FindOrInsert(address, &inserted);
  if (record == nullptr) return false;
  std::int64_t time = backtrace.time;
  // The times of a backtrace outlive the records that an overwrite takes from it, and an address
  // that comes back to a backtrace keeps the time that it had there.
  if (!inserted && record->backtrace == backtrace.word) {
    time = record->time;
  } else {
    if (!inserted && HasBacktrace(record->backtrace)) set->KeepTime(*record);
    if (has_backtrace && set->kept_times.size() != 0) {
      time = set->TakeKeptTime(address, backtrace.word, time);
    }
  }
  record->size = encoded_size;
  record->backtrace = backtrace.word;
  record->time = time;
  return true;
}

/// Gets `table` the memory that `missing` asks for, without its lock. False when there is none.
/// `kernel_only`: the thread may be inside the C library's allocator, or hold its lock.
template <typename Table, typename Missing>
bool MakeRoom(SetMutex& mutex, bool held, bool kernel_only, Table& table, Missing missing) {
  std::size_t bytes = 0;
  {
    const SetLock lock(mutex, held);
    bytes = missing();
  }
  if (bytes == 0) return true;  // another thread has made room
  void* memory = table_memory::FromKernel(bytes);
  if (memory == nullptr && !kernel_only) memory = table_memory::FromAllocator(bytes);
  if (memory == nullptr) return false;
  {
    const SetLock lock(mutex, held);
    if (missing() == bytes) {
      table.Extend(memory, bytes);
      memory = nullptr;
    }
  }
  table_memory::Free(memory, bytes);
  if (!kernel_only) table_memory::FreeWaiting();
  return true;
}

/// StoreRecord with a table that is full. Out of line, like all that is rare: the usual path then
/// has the registers to itself. False when there is no memory.
__attribute__((noinline)) bool GrowAndStoreRecord(PointerSet* set, std::uint64_t address,
                                                  std::uint64_t encoded_size,
                                                  const BacktraceRef& backtrace, bool held,
                                                  bool kernel_only) {
  const auto missing = [set] {
    set->SyncPointers();
    return set->pointers.MissingBytes();
  };
  while (MakeRoom(set->pointer_mutex, held, kernel_only, set->pointers, missing)) {
    if (StoreRecord(set, address, encoded_size, backtrace, held)) return true;
  }
  return false;
}

void CountUnreported() {
  if (unreported_blocks.fetch_add(1, std::memory_order_relaxed) != 0) return;
  async_safe_format_log(ANDROID_LOG_ERROR, "MemLeak.Native",
                        "no memory to record a block: reports will lack it");
}

/// Files the Java-native part of a capture. The caller holds the set's frame lock. Never inlined,
/// so that captures without such a part do not have its variables on the stack.
__attribute__((noinline)) void AddJavaNative(PointerSet* set, std::uint64_t address,
                                             std::uint64_t encoded_size,
                                             std::vector<unwindstack::FrameData>* frame_data) try {
  std::uint64_t unwind_index;
  std::uint64_t generation;
  {
    const std::lock_guard<SetMutex> guard(set->unwind_mutex);
    generation = set->SyncUnwindFrames();
    const auto found = set->unwind_key_to_index.find({frame_data->size(), frame_data->data()});
    if (found != set->unwind_key_to_index.end()) {
      unwind_index = found->second;
      ++set->unwind_frames[unwind_index].references;
    } else {
      unwind_index = set->cur_unwind_index++;
      UnwindFrameInfoType& info = set->unwind_frames[unwind_index];
      info.references = 1;
      info.frames = std::move(*frame_data);
      // The key points at the frames that the entry now owns; entries of the map never move.
      set->unwind_key_to_index.emplace(UnwindFrameKeyType{info.frames.size(), info.frames.data()},
                                       unwind_index);
    }
  }
  const std::lock_guard<SetMutex> guard(set->java_pointer_mutex);
  if (set->SyncJavaPointers() != generation) return;  // a clear took the stack meanwhile
  set->java_pointers[address] = {encoded_size, unwind_index};
} catch (const std::bad_alloc&) {
  // The native record stands; its Java-native part is left out.
}

/// What has been captured for a block.
struct Capture {
  FrameKeyType key;
  std::uint64_t hash;
  std::uint64_t fingerprint;
  std::uint64_t address;
  std::size_t size;
  std::vector<unwindstack::FrameData>* java_frames;
};

/// Files a backtrace: `result` gets a reference to it. False when the table has no room for it.
__attribute__((always_inline)) inline bool StoreBacktrace(PointerSet* set, const Capture& capture,
                                                          bool held, BacktraceRef* result) {
  const SetLock lock(set->frame_mutex, held);
  result->generation = set->SyncFrames();
  const FrameInfoType* const backtrace =
      set->frames.Acquire(capture.key, capture.hash, capture.fingerprint);
  if (backtrace == nullptr) return false;
  result->word = BacktraceRef::WordOf(backtrace);
  if (!capture.java_frames->empty()) {
    AddJavaNative(set, capture.address, EncodeSize(capture.size), capture.java_frames);
  }
  return true;
}

/// StoreBacktrace with a table that is full. False when there is no memory.
__attribute__((noinline)) bool GrowAndStoreBacktrace(PointerSet* set, const Capture& capture,
                                                     bool held, bool kernel_only,
                                                     BacktraceRef* result) {
  const auto missing = [&] {
    set->SyncFrames();
    return set->frames.MissingBytes(capture.key.num_frames);
  };
  while (MakeRoom(set->frame_mutex, held, kernel_only, set->frames, missing)) {
    if (StoreBacktrace(set, capture, held, result)) return true;
  }
  return false;
}

/// Ends the pauses of the two families. Sizes are read without their locks; a stale one only delays
/// the end.
__attribute__((noinline)) void EndPausesIfDrained(MemTrackControl* control, bool native, bool plt) {
  const PointerSet* const sets = set_array.load(std::memory_order_acquire);
  for (std::uint64_t i = 0; i < PointerData::kSetCount; ++i) {
    if (sets[i].RecordCount() != 0) continue;
    if (native) control->ConfigHookStatus(false, false);
    if (plt) control->ConfigPltHookStatus(false, false);
    return;
  }
}

/// Ends a pause once a set has run empty. Intentional: one empty set is enough. Waiting for all 40
/// would mean reading 40 sizes under 40 locks on every free.
__attribute__((always_inline)) inline void EndDrainedPauses(MemTrackControl* control) {
  const bool native_paused = !control->GetHookStart() && control->GetHookEverStarted();
  const bool plt_paused = !control->GetPltHookStart() && control->GetPltHookEverStarted();
  if (native_paused || plt_paused) EndPausesIfDrained(control, native_paused, plt_paused);
}

}  // namespace

PointerSet* PointerData::sets() {
  return set_array.load(std::memory_order_acquire);
}

bool PointerData::Initialize() {
  const std::lock_guard<SetMutex> guard(InitialiseLock());
  PointerSet* sets = set_array.load(std::memory_order_acquire);
  // The tables' own memory must not come back here as records while locks are held.
  const InsideStore inside;
  if (sets == nullptr) {
    // Never freed: other threads may be inside for good.
    sets = new (std::nothrow) PointerSet[kSetCount];
    if (sets == nullptr) return false;
    constexpr std::uint64_t kBounds[kSizeClasses + 1] = {0, 32, 40, 80, 128, UINT64_MAX};
    for (std::uint64_t i = 0; i < kSetCount; ++i) {
      sets[i].lower_size = kBounds[i % kSizeClasses];
      sets[i].upper_size = kBounds[i % kSizeClasses + 1];
    }
    set_array.store(sets, std::memory_order_release);
  }
  table_generation.fetch_add(1, std::memory_order_acq_rel);
  unreported_blocks.store(0, std::memory_order_relaxed);
  // From here on every table counts as empty. Those that nobody is in give up their memory now;
  // no lock is waited for, since the thread that this interrupts may hold it.
  for (std::uint64_t i = 0; i < kSetCount; ++i) {
    if (sets[i].pointer_mutex.try_lock()) {
      sets[i].SyncPointers();
      sets[i].pointer_mutex.unlock();
    }
    if (sets[i].frame_mutex.try_lock()) {
      sets[i].SyncFrames();
      sets[i].frame_mutex.unlock();
    }
  }
  return true;
}

std::size_t PointerData::PointerSize(const void* pointer) {
  return UsableSize(pointer);
}

__attribute__((always_inline)) inline void PointerData::RemoveBacktrace(const BacktraceRef& ref,
                                                                        PointerSet* set) {
  FrameInfoType* const backtrace = BacktraceRef::Backtrace(ref.word);
  if (backtrace == nullptr) return;
  if (set->SyncFrames() != ref.generation) return;  // a clear took it meanwhile
  if (backtrace->references == 0) {
    async_safe_format_log(ANDROID_LOG_ERROR, "MemLeak.Native",
                          "hashIndex %zu does not have matching frame data.",
                          static_cast<std::size_t>(backtrace->hash_index));
    return;
  }
  set->frames.Release(backtrace);
}

__attribute__((always_inline)) inline void PointerData::AddBlockAs(const void* pointer,
                                                                   std::size_t size,
                                                                   bool is_mapping, bool held) {
  const auto address = reinterpret_cast<std::uint64_t>(pointer);
  const std::size_t class_size = is_mapping ? size : ClassSize(pointer, size);
  PointerSet* const set = SelectSet(sets(), address, class_size);
  if (set == nullptr) return;
  set->pointers.Prefetch(address);  // its line arrives while the stack is walked
  record_key.Set(ThreadMark::kInside);
  const BacktraceRef backtrace =
      AddBacktrace(BacktraceSize(), set, address, size, is_mapping, held);
  const std::uint64_t encoded_size = EncodeSize(size);
  if (!StoreRecord(set, address, encoded_size, backtrace, held) &&
      !GrowAndStoreRecord(set, address, encoded_size, backtrace, held, held || is_mapping) &&
      HasBacktrace(backtrace.word)) {
    CountUnreported();
    const SetLock lock(set->frame_mutex, held);
    RemoveBacktrace(backtrace, set);
  }
  record_key.Set(held ? kHoldsStore : nullptr);
}

__attribute__((always_inline)) inline void PointerData::AddBlock(const void* pointer,
                                                                 std::size_t size,
                                                                 bool is_mapping) {
  // Two copies: the usual one need not look at what it holds.
  void* const mark = record_key.Get();
  if (__builtin_expect(static_cast<long>(mark == nullptr), 1L) != 0) {
    AddBlockAs(pointer, size, is_mapping, /*held=*/false);
  } else if (mark == kHoldsStore) {
    AddBlockAs(pointer, size, is_mapping, /*held=*/true);
  }
}

// Add, AddBacktrace and BacktraceGet must be one frame each, whatever the build: the frame walk
// skips just as many levels.
__attribute__((noinline)) void PointerData::Add(const void* pointer, std::size_t size) {
  AddBlock(pointer, size, /*is_mapping=*/false);
}

__attribute__((noinline)) void PointerData::AddMapping(const void* pointer, std::size_t size) {
  AddBlock(pointer, size, /*is_mapping=*/true);
}

__attribute__((noinline)) BacktraceRef PointerData::AddBacktrace(std::size_t num_frames,
                                                                 PointerSet* set,
                                                                 std::uint64_t pointer,
                                                                 std::size_t size, bool is_mapping,
                                                                 bool held) {
  BacktraceRef result{BacktraceRef::WordOf(kEmptyBacktraceIndex), time(nullptr), 0};
  // The size asked for may be anything; what the method can return bounds the buffer.
  std::size_t max_frames = std::min(num_frames, BacktraceCaptureLimit());
  std::unique_ptr<std::uint64_t[]> heap_frames;
  // The hooked call may be the allocator's own, so a mapping's capture asks it for nothing.
  const std::size_t on_stack = is_mapping ? kWalkLimit : BacktraceStackFrames();
  if (max_frames > on_stack) {
    if (!is_mapping) heap_frames.reset(new (std::nothrow) std::uint64_t[max_frames]);
    if (heap_frames == nullptr) max_frames = on_stack;
  }
  std::uint64_t* frames = heap_frames.get();
  if (frames == nullptr) {
    // Not an array: some compilers put those above the frame record, and then they would take up
    // half of the range that the walk may cover. One more than needed, so that it is never none.
    frames =
        static_cast<std::uint64_t*>(__builtin_alloca((max_frames + 1) * sizeof(std::uint64_t)));
  }
  std::vector<unwindstack::FrameData> frame_data;
  const std::size_t count = BacktraceGet(frames, max_frames, frame_data);
  if (count == 0) return result;

  const FrameKeyType key{count, frames};
  const Capture capture{key, FrameKeyHash(key), FrameFingerprint(key), pointer, size, &frame_data};
  if (!StoreBacktrace(set, capture, held, &result) &&
      !GrowAndStoreBacktrace(set, capture, held, held || is_mapping, &result)) {
    CountUnreported();  // no report shows a block without a backtrace
  }
  return result;
}

__attribute__((always_inline)) inline void PointerData::RemoveBlockAs(const void* pointer,
                                                                      std::size_t size,
                                                                      bool is_mapping, bool held) {
  MemTrackControl* const control = MemTrackControl::GetInstance();
  if (control == nullptr) return;
  if (!control->GetHookEverStarted() && !control->GetPltHookEverStarted()) return;
  const auto address = reinterpret_cast<std::uint64_t>(pointer);
  PointerSet* const all = sets();
  if (all == nullptr) return;
  PrefetchRecord(all, address);
  PointerSet* const set = SelectSet(all, address, is_mapping ? size : ClassSize(pointer, size));
  if (set == nullptr) return;
  record_key.Set(ThreadMark::kInside);
  {
    const SetLock pointer_lock(set->pointer_mutex, held);
    // Taken here and not where it is needed: a locked instruction waits for all loads before it,
    // and behind the search those are the cold ones.
    const SetLock frame_lock(set->frame_mutex, held);
    const std::uint64_t generation = set->SyncPointers();
    Record* const record = set->pointers.Find(address);
    if (record != nullptr) {
      const BacktraceRef backtrace{record->backtrace, 0, generation};
      __builtin_prefetch(BacktraceRef::Backtrace(backtrace.word), 1);
      set->pointers.Erase(record);
      RemoveBacktrace(backtrace, set);
      EndDrainedPauses(control);
    }
  }
  record_key.Set(held ? kHoldsStore : nullptr);
}

__attribute__((always_inline)) inline void PointerData::RemoveBlock(const void* pointer,
                                                                    std::size_t size,
                                                                    bool is_mapping) {
  void* const mark = record_key.Get();
  if (__builtin_expect(static_cast<long>(mark == nullptr), 1L) != 0) {
    RemoveBlockAs(pointer, size, is_mapping, /*held=*/false);
  } else if (mark == kHoldsStore) {
    RemoveBlockAs(pointer, size, is_mapping, /*held=*/true);
  }
}

void PointerData::Remove(const void* pointer, std::size_t size) {
  RemoveBlock(pointer, size, /*is_mapping=*/false);
}

void PointerData::RemoveMapping(const void* pointer, std::size_t size) {
  RemoveBlock(pointer, size, /*is_mapping=*/true);
}
