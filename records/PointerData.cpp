// Adding and removing records: the hot path of every tracked allocation.
#include "records/PointerData.h"

#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>
#include <new>

#include "async_safe/log.h"
#include "backtrace/Backtrace.h"
#include "records/PointerSet.h"
#include "records/set_selection.h"
#include "tracker/MemTrackControl.h"

namespace {

/// Captures of at most this many frames use the stack: all that the frame-pointer walk can return.
constexpr std::size_t kStackFrames = 256;

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

/// Files the record of a new block. False when there is no room for it or a clear came between
/// the capture of its backtrace and now: then it counts as made before the clear.
bool StoreRecord(PointerSet* set, std::uint64_t address, std::uint64_t encoded_size,
                 const BacktraceRef& backtrace) {
  const std::lock_guard<SetMutex> guard(set->pointer_mutex);
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
    if (!inserted && HasBacktrace(record->backtrace)) {
      set->KeepTime(address, BacktraceRef::Backtrace(record->backtrace), record->time);
    }
    if (has_backtrace && !set->kept_times.empty()) {
      time = set->TakeKeptTime(address, BacktraceRef::Backtrace(backtrace.word), time);
    }
  }
  record->size = encoded_size;
  record->backtrace = backtrace.word;
  record->time = time;
  return true;
}

/// Files the Java-native part of a capture. The caller holds the set's frame lock.
void AddJavaNative(PointerSet* set, std::uint64_t address, std::uint64_t encoded_size,
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

/// Ends a pause once a set has run empty. One empty set is enough: waiting for all 40 would mean
/// reading 40 sizes under 40 locks on every free. Sizes are read without their locks; a stale one
/// only delays the end.
void EndDrainedPauses(MemTrackControl* control) {
  const bool native_paused = !control->GetHookStart() && control->GetHookEverStarted();
  const bool plt_paused = !control->GetPltHookStart() && control->GetPltHookEverStarted();
  if (!native_paused && !plt_paused) return;
  const PointerSet* const sets = set_array.load(std::memory_order_acquire);
  for (std::uint64_t i = 0; i < PointerData::kSetCount; ++i) {
    if (sets[i].RecordCount() != 0) continue;
    if (native_paused) control->ConfigHookStatus(false, false);
    if (plt_paused) control->ConfigPltHookStatus(false, false);
    return;
  }
}

}  // namespace

PointerSet* PointerData::sets() {
  return set_array.load(std::memory_order_acquire);
}

bool PointerData::Initialize() {
  const std::lock_guard<SetMutex> guard(InitialiseLock());
  PointerSet* sets = set_array.load(std::memory_order_acquire);
  // The tables' own memory must not come back here as records while locks are held.
  void* const mark = record_key.Get();
  record_key.Set(ThreadMark::kInside);
  if (sets == nullptr) {
    sets = new PointerSet[kSetCount];  // never freed: other threads may be inside for good
    constexpr std::uint64_t kBounds[kSizeClasses + 1] = {0, 32, 40, 80, 128, UINT64_MAX};
    for (std::uint64_t i = 0; i < kSetCount; ++i) {
      sets[i].lower_size = kBounds[i % kSizeClasses];
      sets[i].upper_size = kBounds[i % kSizeClasses + 1];
    }
    set_array.store(sets, std::memory_order_release);
  }
  table_generation.fetch_add(1, std::memory_order_acq_rel);
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
  record_key.Set(mark);
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

// Add, AddBacktrace and BacktraceGet must be one frame each, whatever the build: the frame walk
// skips just as many levels.
__attribute__((noinline)) void PointerData::Add(const void* pointer, std::size_t size) {
  if (record_key.Get() != nullptr) return;
  const auto address = reinterpret_cast<std::uint64_t>(pointer);
  PointerSet* const set = SelectSet(sets(), address, ClassSize(pointer, size));
  if (set == nullptr) return;
  set->pointers.Prefetch(address);  // its line arrives while the stack is walked
  record_key.Set(ThreadMark::kInside);
  const BacktraceRef backtrace = AddBacktrace(BacktraceSize(), set, address, size);
  if (!StoreRecord(set, address, EncodeSize(size), backtrace)) {
    const std::lock_guard<SetMutex> guard(set->frame_mutex);
    RemoveBacktrace(backtrace, set);
  }
  record_key.Set(nullptr);
}

__attribute__((noinline)) BacktraceRef PointerData::AddBacktrace(std::size_t num_frames,
                                                                 PointerSet* set,
                                                                 std::uint64_t pointer,
                                                                 std::size_t size) {
  BacktraceRef result{BacktraceRef::WordOf(kEmptyBacktraceIndex), time(nullptr), 0};
  // The size asked for may be anything; what the method can return bounds the buffer.
  const std::size_t limit = BacktraceCaptureLimit();
  const std::size_t max_frames = num_frames < limit ? num_frames : limit;
  std::unique_ptr<std::uint64_t[]> heap_frames;
  std::uint64_t* frames;
  if (max_frames <= kStackFrames) {
    // Not an array: some compilers put those above the frame record, and then they would take up
    // half of the range that the walk may cover. One more than needed, so that it is never none.
    frames =
        static_cast<std::uint64_t*>(__builtin_alloca((max_frames + 1) * sizeof(std::uint64_t)));
  } else {
    heap_frames.reset(new (std::nothrow) std::uint64_t[max_frames]);
    frames = heap_frames.get();
    if (frames == nullptr) return result;
  }
  std::vector<unwindstack::FrameData> frame_data;
  const std::size_t count = BacktraceGet(frames, max_frames, frame_data);
  if (count == 0) return result;

  const FrameKeyType key{count, frames};
  const std::uint64_t hash = FrameKeyHash(key);
  const std::uint64_t fingerprint = FrameFingerprint(key);
  const std::lock_guard<SetMutex> guard(set->frame_mutex);
  result.generation = set->SyncFrames();
  const FrameInfoType* const backtrace = set->frames.Acquire(key, hash, fingerprint);
  if (backtrace == nullptr) return result;
  result.word = BacktraceRef::WordOf(backtrace);
  if (!frame_data.empty()) AddJavaNative(set, pointer, EncodeSize(size), &frame_data);
  return result;
}

__attribute__((noinline)) void PointerData::Remove(const void* pointer, std::size_t size) {
  MemTrackControl* const control = MemTrackControl::GetInstance();
  if (control == nullptr) return;
  if (!control->GetHookEverStarted() && !control->GetPltHookEverStarted()) return;
  if (record_key.Get() != nullptr) return;
  const auto address = reinterpret_cast<std::uint64_t>(pointer);
  PointerSet* const all = sets();
  if (all == nullptr) return;
  PrefetchRecord(all, address);
  PointerSet* const set = SelectSet(all, address, ClassSize(pointer, size));
  if (set == nullptr) return;
  record_key.Set(ThreadMark::kInside);
  {
    const std::lock_guard<SetMutex> pointer_guard(set->pointer_mutex);
    // Taken here and not where it is needed: a locked instruction waits for all loads before it,
    // and behind the search those are the cold ones.
    const std::lock_guard<SetMutex> frame_guard(set->frame_mutex);
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
  record_key.Set(nullptr);
}
