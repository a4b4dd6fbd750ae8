// Adding and removing records: the hot path of every tracked allocation.
#include "records/PointerData.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>
#include <optional>

#include "async_safe/log.h"
#include "backtrace/Backtrace.h"
#include "records/PointerSet.h"
#include "records/pause_counts.h"
#include "records/record_store.h"
#include "records/set_selection.h"
#include "records/table_memory.h"
#include "tracker/MemTrackControl.h"

namespace record_store {

BacktraceTable backtraces;
std::atomic<std::uint32_t> generation{0};

}  // namespace record_store

namespace {

using record_store::backtraces;
using record_store::Generation;
using record_store::PageGuard;

/// Captures of at most this many frames use the stack: all that the frame-pointer walk can return.
constexpr std::size_t kStackFrames = 256;

/// How often an operation asks the C library's allocator for memory before it gives up: another
/// thread may take what was meant for this one.
constexpr int kRefills = 3;

std::atomic<PointerSet*> set_array{nullptr};

/// The size as it is stored: with the zygote mark, or 0 when nobody has said whether this process
/// is a zygote child. Intentional: such a record reads as size 0.
std::uint32_t EncodeSize(std::size_t size) {
  const bool* zygote_child = MemTrackControl::GetMallocZygoteChild();
  if (zygote_child == nullptr) return 0;
  // The flag is declared bool, but it is its owner's contract that four bytes can be read.
  std::uint32_t value;
  std::memcpy(&value, zygote_child, sizeof(value));
  // Readers take the low 31 bits for the size and bit 31 for the mark.
  const auto low = static_cast<std::uint32_t>(size);
  return value != 0 ? low | static_cast<std::uint32_t>(kZygoteChildBit) : low;
}

std::int32_t RecordTime(std::int64_t time) {
  return static_cast<std::int32_t>(std::clamp<std::int64_t>(
      time - kRecordTimeBase, std::int64_t{INT32_MIN}, std::int64_t{INT32_MAX}));
}

/// Holds the set's frame lock; nothing for the thread that holds the store.
class FrameGuard {
 public:
  explicit FrameGuard(PointerSet* set) : set_(record_store::ThreadHoldsStore() ? nullptr : set) {
    if (set_ != nullptr) set_->frame_mutex.lock();
  }
  ~FrameGuard() {
    if (set_ != nullptr) set_->frame_mutex.unlock();
  }
  FrameGuard(const FrameGuard&) = delete;
  FrameGuard& operator=(const FrameGuard&) = delete;

 private:
  PointerSet* const set_;
};

/// Keeps all record operations out while it lives; nothing for the thread that does so already.
class StoreGuard {
 public:
  StoreGuard() {
    if (!record_store::ThreadHoldsStore()) locks_.emplace();
  }

 private:
  std::optional<FrameInfoListWithLock> locks_;
};

/// Makes room in the table of backtraces. False without memory.
bool GrowBacktraces() {
  const StoreGuard guard;
  std::uint64_t records = 0;
  RecordPages::ForEach([&records](std::uint64_t /*address*/, RecordPage& page) {
    records += page.count();
  });
  return backtraces.Grow(records, [](std::uint32_t sweep) {
    record_store::ForEachRecord([sweep](std::uint64_t /*address*/, Record& record) {
      if (record.backtrace != 0) backtraces.At(record.backtrace)->sweep = sweep;
    });
  });
}

/// The backtrace of `key`, made when it is new; `*epoch` is that of the answer. Null without memory.
__attribute__((noinline)) const FrameInfoType* MakeBacktrace(PointerSet* set,
                                                             const FrameKeyType& key,
                                                             std::uint64_t hash,
                                                             std::uint64_t fingerprint,
                                                             std::uint32_t* epoch) {
  for (int refills = 0;;) {
    const FrameInfoType* backtrace = nullptr;
    *epoch = backtraces.epoch();
    BacktraceTable::Result result;
    {
      const FrameGuard guard(set);
      result = backtraces.FindOrMake(key, hash, fingerprint, &backtrace);
    }
    if (result == BacktraceTable::Result::kDone) return backtrace;
    if (result == BacktraceTable::Result::kFull && GrowBacktraces()) continue;
    if (refills++ == kRefills || !table_memory::RefillFromHeap()) return nullptr;
  }
}

enum class Stored { kDone, kTablesChanged, kNoMemory };

/// Files one record in its page. Under the page's lock.
Stored StoreInPage(RecordPage& page, std::uint64_t set_number, std::uint32_t key,
                   std::uint32_t size, std::int32_t time, std::uint32_t backtrace) {
  Record* record = page.Find(key);
  if (record != nullptr && record->backtrace == backtrace) {
    // The address comes back to its backtrace, which keeps the earlier time.
    record->size = size;
    if (backtrace == 0) record->time = time;
    return Stored::kDone;
  }
  if (backtrace != 0) {
    Record* const kept = page.Find(RecordKey::Kept(key), backtrace);
    if (kept != nullptr) {
      time = kept->time;
      page.Erase(kept);
      record = page.Find(key);
    }
  }
  if (record == nullptr) {
    record = page.Insert(key);
    if (record == nullptr) return Stored::kNoMemory;
    pause_counts::Change(set_number, 1);
  } else if (record->backtrace != 0) {
    // The times of a backtrace outlive the records that an overwrite takes from it. Without memory
    // the time is lost.
    const Record old = *record;
    *record = {key, size, time, backtrace};
    Record* const kept = page.Insert(RecordKey::Kept(key));
    if (kept != nullptr) *kept = {RecordKey::Kept(key), 0, old.time, old.backtrace};
    return Stored::kDone;
  }
  *record = {key, size, time, backtrace};
  return Stored::kDone;
}

/// Files the record of a new block. kTablesChanged: the backtrace must be looked up again.
Stored StoreRecord(const SetChoice& choice, std::uint64_t address, std::uint32_t size,
                   const BacktraceRef& ref) {
  RecordPage* page = RecordPages::Find(address);
  if (page == nullptr) {
    const FrameGuard guard(choice.set);
    page = RecordPages::FindOrMake(address);
    if (page == nullptr) return Stored::kNoMemory;
  }
  const PageGuard guard(page, *choice.set);
  if (backtraces.epoch() != ref.epoch || Generation() != ref.generation) {
    return Stored::kTablesChanged;
  }
  if (page->generation() != ref.generation) page->Empty(ref.generation);
  return StoreInPage(*page, SetNumber(address, choice.size_class),
                     RecordKey::Of(address, choice.size_class), size, ref.time, ref.location);
}

/// Files the Java-native part of a capture.
void AddJavaNative(PointerSet* set, std::uint64_t address, std::uint64_t encoded_size,
                   std::vector<unwindstack::FrameData>* frame_data) try {
  const FrameGuard frame_guard(set);
  std::uint64_t unwind_index;
  std::uint32_t generation;
  {
    const std::lock_guard<std::mutex> guard(set->unwind_mutex);
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
  const std::lock_guard<std::mutex> guard(set->java_pointer_mutex);
  if (set->SyncJavaPointers() != generation) return;  // a clear took the stack meanwhile
  set->java_pointers[address] = {encoded_size, unwind_index};
} catch (const std::bad_alloc&) {
  // The native record stands; its Java-native part is left out.
}

/// Removes the record of `address` from its set. True when there was one.
bool RemoveRecord(RecordPage* page, const SetChoice& choice, std::uint64_t address) {
  const PageGuard guard(page, *choice.set);
  if (page->generation() != Generation()) return false;
  Record* const record = page->Find(RecordKey::Of(address, choice.size_class));
  if (record == nullptr) return false;
  page->Erase(record);
  pause_counts::Change(SetNumber(address, choice.size_class), -1);
  return true;
}

/// Ends a pause once a set has run empty.
void EndDrainedPauses(MemTrackControl* control) {
  const bool native_paused = !control->GetHookStart() && control->GetHookEverStarted();
  const bool plt_paused = !control->GetPltHookStart() && control->GetPltHookEverStarted();
  if (!native_paused && !plt_paused) return pause_counts::Stop();
  if (!pause_counts::IsCounting()) {
    const StoreGuard guard;
    pause_counts::Start();
  }
  // Intentional: one empty set is enough.
  if (!pause_counts::AnySetEmpty()) return;
  if (native_paused) control->ConfigHookStatus(false, false);
  if (plt_paused) control->ConfigPltHookStatus(false, false);
}

/// Gives the memory of older generations back, as far as nobody is inside. Waits for no lock, since
/// the thread that a clear interrupts may hold it.
void GiveMemoryBack(PointerSet* sets, std::uint32_t generation) {
  std::uint64_t held = 0;
  for (; held < 2 * PointerData::kSetCount; ++held) {
    PointerSet& set = sets[held % PointerData::kSetCount];
    if (!(held < PointerData::kSetCount ? set.pointer_mutex : set.frame_mutex).try_lock()) break;
  }
  if (held == 2 * PointerData::kSetCount && RecordPages::EmptyAll(generation)) {
    backtraces.TryClear();
  }
  while (held-- > 0) {
    PointerSet& set = sets[held % PointerData::kSetCount];
    (held < PointerData::kSetCount ? set.pointer_mutex : set.frame_mutex).unlock();
  }
}

std::atomic<std::uint64_t> dropped_records{0};

void NoteDroppedRecord() {
  if (dropped_records.fetch_add(1, std::memory_order_relaxed) != 0) return;
  async_safe_format_log(ANDROID_LOG_ERROR, "MemLeak.Native", "no memory for a record");
}

/// Whether there may be records and the thread is not inside an operation.
bool MayRemove(const MemTrackControl* control) {
  if (control == nullptr) return false;
  if (!control->GetHookEverStarted() && !control->GetPltHookEverStarted()) return false;
  return (RecordMark() & kInside) == 0;
}

}  // namespace

PointerSet* PointerData::sets() {
  return set_array.load(std::memory_order_acquire);
}

bool PointerData::Initialize() {
  const std::lock_guard<std::mutex> guard(InitialiseLock());
  PointerSet* sets = set_array.load(std::memory_order_acquire);
  // What the set-up allocates must not come back here as records while locks are held.
  const std::uintptr_t mark = RecordMark();
  SetRecordMark(mark | kInside);
  if (sets == nullptr) {
    sets = new PointerSet[kSetCount];  // never freed: other threads may be inside for good
    constexpr std::uint64_t kBounds[kSizeClasses + 1] = {0, 32, 40, 80, 128, UINT64_MAX};
    for (std::uint64_t i = 0; i < kSetCount; ++i) {
      sets[i].lower_size = kBounds[i % kSizeClasses];
      sets[i].upper_size = kBounds[i % kSizeClasses + 1];
    }
    set_array.store(sets, std::memory_order_release);
  }
  // From here on every table counts as empty.
  const std::uint32_t generation = record_store::generation.fetch_add(1) + 1;
  GiveMemoryBack(sets, generation);
  SetRecordMark(mark);
  return true;
}

std::size_t PointerData::PointerSize(const void* pointer) {
  return UsableSize(pointer);
}

/// Files a block of `size` bytes whose class is that of `class_size`.
__attribute__((always_inline)) inline void PointerData::AddBlock(std::uint64_t address,
                                                                 std::size_t class_size,
                                                                 std::size_t size) {
  const SetChoice choice = SelectSet(sets(), address, class_size);
  if (choice.set == nullptr) return;
  const std::uintptr_t mark = RecordMark();
  SetRecordMark(mark | kInside);
  RecordPage* const page = RecordPages::Find(address);
  if (page != nullptr) page->Prefetch(address);  // its line arrives while the stack is walked
  for (int refills = 0;;) {
    const BacktraceRef ref = AddBacktrace(BacktraceSize(), choice.set, address, size);
    const Stored stored =
        ref.no_memory ? Stored::kNoMemory : StoreRecord(choice, address, EncodeSize(size), ref);
    if (stored == Stored::kDone) break;
    if (stored == Stored::kTablesChanged) continue;
    if (refills++ < kRefills && table_memory::RefillFromHeap()) continue;
    NoteDroppedRecord();
    break;
  }
  SetRecordMark(mark);
}

// Add, AddBacktrace and BacktraceGet must be one frame each, whatever the build: the frame walk
// skips just as many levels.
__attribute__((noinline)) void PointerData::Add(const void* pointer, std::size_t size) {
  if ((RecordMark() & kInside) != 0) return;
  AddBlock(reinterpret_cast<std::uint64_t>(pointer), ClassSize(pointer, size), size);
}

__attribute__((noinline)) void PointerData::AddMapping(const void* pointer, std::size_t size) {
  if ((RecordMark() & kInside) != 0) return;
  AddBlock(reinterpret_cast<std::uint64_t>(pointer), size, size);
}

__attribute__((noinline)) BacktraceRef PointerData::AddBacktrace(std::size_t num_frames,
                                                                 PointerSet* set,
                                                                 std::uint64_t pointer,
                                                                 std::size_t size) {
  BacktraceRef result{0, backtraces.epoch(), Generation(), RecordTime(time(nullptr)), false};
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
  const FrameInfoType* backtrace = backtraces.Find(key, hash, fingerprint);
  if (backtrace == nullptr) {
    backtrace = MakeBacktrace(set, key, hash, fingerprint, &result.epoch);
    result.no_memory = backtrace == nullptr;
    if (result.no_memory) return result;
  }
  result.location = backtrace->location;
  if (!frame_data.empty()) AddJavaNative(set, pointer, EncodeSize(size), &frame_data);
  return result;
}

__attribute__((always_inline)) inline void PointerData::RemoveBlock(MemTrackControl* control,
                                                                    std::uint64_t address,
                                                                    std::size_t class_size) {
  const SetChoice choice = SelectSet(sets(), address, class_size);
  if (choice.set == nullptr) return;
  RecordPage* const page = RecordPages::Find(address);
  if (page == nullptr || page->count() == 0) return;
  const std::uintptr_t mark = RecordMark();
  SetRecordMark(mark | kInside);
  if (::RemoveRecord(page, choice, address)) EndDrainedPauses(control);
  SetRecordMark(mark);
}

void PointerData::Remove(const void* pointer, std::size_t size) {
  MemTrackControl* const control = MemTrackControl::GetInstance();
  if (!MayRemove(control)) return;
  RemoveBlock(control, reinterpret_cast<std::uint64_t>(pointer), ClassSize(pointer, size));
}

void PointerData::RemoveMapping(const void* pointer, std::size_t size) {
  MemTrackControl* const control = MemTrackControl::GetInstance();
  if (!MayRemove(control)) return;
  RemoveBlock(control, reinterpret_cast<std::uint64_t>(pointer), size);
}
