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
#include "protocol/protocol.h"
#include "records/PointerSet.h"
#include "records/pause_counts.h"
#include "records/record_store.h"
#include "records/set_selection.h"
#include "records/table_memory.h"
#include "tracker/control/MemTrackControl.h"

namespace record_store {

BacktraceTable backtraces;
std::atomic<std::uint32_t> generation{0};

}  // namespace record_store

/// Beyond every location of the arena.
constexpr std::uint32_t kNoMemoryForBacktrace = UINT32_MAX;

/// The result of a capture.
struct BacktraceRef {
  /// Location of the backtrace; 0 for none, kNoMemoryForBacktrace without memory.
  std::uint32_t location;
  /// Epoch of the table of backtraces when the backtrace was looked up.
  std::uint32_t epoch;
  /// Number of clears before the capture.
  std::uint32_t generation;
  /// As records keep it.
  std::int32_t time;
};

namespace {

using record_store::backtraces;
using record_store::Generation;
using record_store::PageGuard;

/// How often an operation asks the C library's allocator for memory before it gives up: another
/// thread may take what was meant for this one.
constexpr int kRefills = 3;

/// Bytes from a block back to its size: those of glibc and of Android's allocator are within.
constexpr std::uint64_t kBlockHeader = 8;

/// The size as it is stored: with the zygote mark, or 0 when it is not known whether this process
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

void CountUnreported() {
  if (unreported_blocks.fetch_add(1, std::memory_order_relaxed) != 0) return;
  async_safe_format_log(ANDROID_LOG_ERROR, protocol::kLogTag,
                        "no memory to record a block: reports will lack it");
}

/// After a lack of memory: gets more, from the C library's allocator. `*refills` counts the
/// attempts of one operation.
bool Refill(bool kernel_only, int* refills) {
  return !kernel_only && (*refills)++ < kRefills && table_memory::RefillFromHeap();
}

/// Makes room in the table of backtraces. False without memory.
bool GrowBacktraces(bool held) {
  const FrameInfoListWithLock locks(held);
  std::uint64_t records = 0;
  RecordPages::ForEach(
      [&records](std::uint64_t /*address*/, RecordPage& page) { records += page.count(); });
  return backtraces.Grow(records, [](std::uint32_t sweep) {
    record_store::ForEachRecord([sweep](std::uint64_t /*address*/, Record& record) {
      if (record.backtrace != 0) backtraces.At(record.backtrace)->sweep = sweep;
    });
  });
}

/// A captured stack and its hashes.
struct Capture {
  FrameKeyType key;
  std::uint64_t hash;
  std::uint64_t fingerprint;
};

/// Adds an unknown backtrace. Returns its location, 0 without memory. Sets `*epoch` to the epoch of
/// the lookup. `kernel_only`: the thread may be inside the C library's allocator, or hold its
/// lock.
__attribute__((noinline)) std::uint32_t AddNewBacktrace(PointerSet* set, const Capture& capture,
                                                        bool held, bool kernel_only,
                                                        std::uint32_t* epoch) {
  for (int refills = 0;;) {
    std::uint32_t location = 0;
    *epoch = backtraces.epoch();
    BacktraceTable::Result result;
    {
      const SetLock lock(set->frame_mutex, held);
      result = backtraces.FindOrAdd(capture.key, capture.hash, capture.fingerprint, &location);
    }
    if (result == BacktraceTable::Result::kDone) return location;
    if (result == BacktraceTable::Result::kFull && GrowBacktraces(held)) continue;
    if (!Refill(kernel_only, &refills)) return 0;
  }
}

enum class Stored { kDone, kTablesChanged, kNoMemory };

/// Whether there has ever been a kept time. Most programs have none, and then no allocation looks
/// for one.
std::atomic<bool> any_kept{false};

/// Keeps the time of a record that is overwritten: the times of a backtrace outlive it. Without
/// memory, and in a page with very many records, the time is lost.
__attribute__((noinline)) void KeepTime(RecordPage& page, const Record& record) {
  /// One for each byte of the page. Kept times must leave room for records.
  constexpr std::uint32_t kMostRecords = 4096;
  if (page.count() >= kMostRecords) return;
  page.Insert({RecordKey::Kept(record.key), 0, record.time, record.backtrace});
  any_kept.store(true, std::memory_order_relaxed);
}

/// Takes the time that the backtrace of `record` has kept of its address, if there is one.
__attribute__((noinline)) void TakeKeptTime(RecordPage& page, Record& record) {
  Record* const kept = page.FindKept(record.key, record.backtrace);
  if (kept == nullptr) return;
  record.time = kept->time;
  page.Erase(kept);
}

/// Stores one record in its page. False without memory. Under the page's lock.
bool StoreInPage(RecordPage& page, std::uint64_t set_number, Record record) {
  Record* old = page.Find(record.key);
  if (old != nullptr && old->backtrace == record.backtrace) {
    // The address comes back to its backtrace, which keeps the earlier time.
    if (record.backtrace != 0) record.time = old->time;
    *old = record;
    return true;
  }
  // Both may move the old record.
  if (record.backtrace != 0 && any_kept.load(std::memory_order_relaxed)) {
    TakeKeptTime(page, record);
    old = page.Find(record.key);
  }
  if (old != nullptr && old->backtrace != 0) {
    KeepTime(page, *old);
    old = page.Find(record.key);
  }
  if (old != nullptr) {
    *old = record;
    return true;
  }
  if (!page.Insert(record)) return false;
  pause_counts::Change(set_number, 1);
  return true;
}

/// Stores the record of a new block. kTablesChanged: the backtrace must be looked up again. A
/// record that was captured before a clear is not stored.
__attribute__((always_inline)) inline Stored StoreRecord(const SetChoice& choice,
                                                         std::uint64_t address, std::uint32_t size,
                                                         const BacktraceRef& ref, bool held) {
  RecordPage* page = RecordPages::Find(address);
  if (__builtin_expect(static_cast<long>(page == nullptr), 0L) != 0) {
    const SetLock lock(choice.set->frame_mutex, held);
    page = RecordPages::FindOrAdd(address);
    if (page == nullptr) return Stored::kNoMemory;
  }
  const PageGuard guard(page, choice.set->pointer_mutex, held);
  if (Generation() != ref.generation) return Stored::kDone;
  if (backtraces.epoch() != ref.epoch) return Stored::kTablesChanged;
  if (page->generation() != ref.generation) page->Empty(ref.generation);
  const Record record{RecordKey::Of(address, choice.size_class), size, ref.time, ref.location};
  const bool stored = StoreInPage(*page, SetNumber(address, choice.size_class), record);
  return stored ? Stored::kDone : Stored::kNoMemory;
}

/// Stores the Java-native part of a capture. Never inlined, so that captures without such a part do
/// not have its variables on the stack.
__attribute__((noinline)) void AddJavaNative(PointerSet* set, std::uint64_t address,
                                             std::uint64_t encoded_size,
                                             std::vector<unwindstack::FrameData>* frame_data,
                                             bool held) try {
  const SetLock frame_lock(set->frame_mutex, held);
  std::uint64_t unwind_index;
  std::uint32_t generation;
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

/// Removes the record of `address` from its set. True when there was one.
__attribute__((always_inline)) inline bool RemoveRecord(RecordPage* page, const SetChoice& choice,
                                                        std::uint64_t address, bool held) {
  const PageGuard guard(page, choice.set->pointer_mutex, held);
  if (page->generation() != Generation()) return false;
  Record* const record = page->Find(RecordKey::Of(address, choice.size_class));
  if (record == nullptr) return false;
  page->Erase(record);
  pause_counts::Change(SetNumber(address, choice.size_class), -1);
  return true;
}

/// Ends the pauses of the two families once a set is empty. Intentional: one empty set is enough.
__attribute__((noinline)) void EndPausesIfDrained(MemTrackControl* control, bool native, bool plt,
                                                  bool held) {
  if (!pause_counts::IsCounting()) {
    const FrameInfoListWithLock locks(held);
    pause_counts::Start();
  }
  if (!pause_counts::AnySetEmpty()) return;
  if (native) control->ConfigHookStatus(false, false);
  if (plt) control->ConfigPltHookStatus(false, false);
}

__attribute__((always_inline)) inline void EndDrainedPauses(MemTrackControl* control, bool held) {
  const bool native_paused = !control->GetHookStart() && control->GetHookEverStarted();
  const bool plt_paused = !control->GetPltHookStart() && control->GetPltHookEverStarted();
  if (native_paused || plt_paused) {
    EndPausesIfDrained(control, native_paused, plt_paused, held);
  } else {
    pause_counts::Stop();
  }
}

/// Gives back the memory of the records before the clear that has led to `generation`, as far as no
/// operation is inside. Waits for no lock: the thread that a clear interrupts may hold one.
void GiveMemoryBack(PointerSet* sets, std::uint32_t generation) {
  std::uint64_t held = 0;
  const auto lock = [sets](std::uint64_t i) -> SetMutex& {
    PointerSet& set = sets[i % PointerSet::kCount];
    return i < PointerSet::kCount ? set.pointer_mutex : set.frame_mutex;
  };
  while (held < 2 * PointerSet::kCount && lock(held).try_lock()) ++held;
  if (held == 2 * PointerSet::kCount && RecordPages::EmptyAll(generation)) {
    backtraces.TryClear();
  }
  while (held-- > 0) lock(held).unlock();
}

}  // namespace

bool PointerData::Initialize() {
  const std::lock_guard<SetMutex> guard(InitialiseLock());
  // The tables' own memory must not come back here as records while locks are held.
  const InsideStore inside;
  PointerSet* const sets = PointerSet::MakeAll();
  if (sets == nullptr) return false;
  unreported_blocks.store(0, std::memory_order_relaxed);
  // From here on the store counts as empty.
  GiveMemoryBack(sets, record_store::generation.fetch_add(1) + 1);
  return true;
}

std::size_t PointerData::PointerSize(const void* pointer) {
  return UsableSize(pointer);
}

__attribute__((always_inline)) inline void PointerData::AddBlockAs(const void* pointer,
                                                                   std::size_t size, Call call) {
  const auto address = reinterpret_cast<std::uint64_t>(pointer);
  const std::size_t class_size = call.is_mapping ? size : ClassSize(pointer, size);
  const SetChoice choice = SelectSet(address, class_size);
  if (choice.set == nullptr) return;
  const RecordPage* const page = RecordPages::Find(address);
  if (page != nullptr) page->Prefetch(address);  // its line arrives while the stack is walked
  record_key.Set(ThreadMark::kInside);
  for (int refills = 0;;) {
    BacktraceRef ref = AddBacktrace(BacktraceSize(), choice.set, address, size, call);
    const bool lacks_backtrace = ref.location == kNoMemoryForBacktrace;
    if (lacks_backtrace) ref.location = 0;
    const Stored stored = StoreRecord(choice, address, EncodeSize(size), ref, call.held);
    if (stored == Stored::kTablesChanged ||
        (stored == Stored::kNoMemory && Refill(call.held || call.is_mapping, &refills))) {
      call.again = call.again || !lacks_backtrace;
      continue;
    }
    // No report shows a block without a backtrace.
    const bool is_lost = stored == Stored::kNoMemory && ref.location != 0;
    if (__builtin_expect(static_cast<long>(lacks_backtrace || is_lost), 0L) != 0) CountUnreported();
    break;
  }
  record_key.Set(call.held ? kHoldsStore : nullptr);
}

__attribute__((always_inline)) inline void PointerData::AddBlock(const void* pointer,
                                                                 std::size_t size,
                                                                 bool is_mapping) {
  // Inlined twice with a constant `held`: the usual copy does not test it.
  void* const mark = record_key.Get();
  if (__builtin_expect(static_cast<long>(mark == nullptr), 1L) != 0) {
    AddBlockAs(pointer, size, {is_mapping, /*held=*/false, /*again=*/false});
  } else if (mark == kHoldsStore) {
    AddBlockAs(pointer, size, {is_mapping, /*held=*/true, /*again=*/false});
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
                                                                 std::size_t size, Call call) {
  BacktraceRef result{0, backtraces.epoch(), Generation(), RecordTime(time(nullptr))};
  // The size asked for may be anything; what the method can return bounds the buffer.
  std::size_t max_frames = std::min(num_frames, BacktraceCaptureLimit());
  std::unique_ptr<std::uint64_t[]> heap_frames;
  // The hooked call may be the allocator's own, so a mapping's capture asks it for nothing.
  const std::size_t on_stack = call.is_mapping ? kWalkLimit : BacktraceStackFrames();
  if (max_frames > on_stack) {
    if (!call.is_mapping) heap_frames.reset(new (std::nothrow) std::uint64_t[max_frames]);
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
  const Capture capture{key, FrameKeyHash(key), FrameFingerprint(key)};
  result.location = backtraces.Find(key, capture.hash, capture.fingerprint);
  if (__builtin_expect(static_cast<long>(result.location == 0), 0L) != 0) {
    result.location =
        AddNewBacktrace(set, capture, call.held, call.held || call.is_mapping, &result.epoch);
    if (result.location == 0) {
      result.location = kNoMemoryForBacktrace;
      return result;
    }
  }
  if (!frame_data.empty() && !call.again) {
    AddJavaNative(set, pointer, EncodeSize(size), &frame_data, call.held);
  }
  return result;
}

__attribute__((always_inline)) inline void PointerData::RemoveBlockAs(const void* pointer,
                                                                      std::size_t size, Call call) {
  MemTrackControl* const control = MemTrackControl::GetInstance();
  if (control == nullptr) return;
  if (!control->GetHookEverStarted() && !control->GetPltHookEverStarted()) return;
  const auto address = reinterpret_cast<std::uint64_t>(pointer);
  // Most allocators keep the usable size in front of the block. That line arrives while the page is
  // searched.
  if (!call.is_mapping) __builtin_prefetch(reinterpret_cast<const void*>(address - kBlockHeader));
  RecordPage* const page = RecordPages::Find(address);
  if (page == nullptr || page->count() == 0) return;
  page->Prefetch(address);
  const SetChoice choice = SelectSet(address, call.is_mapping ? size : ClassSize(pointer, size));
  if (choice.set == nullptr) return;
  record_key.Set(ThreadMark::kInside);
  if (RemoveRecord(page, choice, address, call.held)) EndDrainedPauses(control, call.held);
  record_key.Set(call.held ? kHoldsStore : nullptr);
}

__attribute__((always_inline)) inline void PointerData::RemoveBlock(const void* pointer,
                                                                    std::size_t size,
                                                                    bool is_mapping) {
  void* const mark = record_key.Get();
  if (__builtin_expect(static_cast<long>(mark == nullptr), 1L) != 0) {
    RemoveBlockAs(pointer, size, {is_mapping, /*held=*/false, /*again=*/false});
  } else if (mark == kHoldsStore) {
    RemoveBlockAs(pointer, size, {is_mapping, /*held=*/true, /*again=*/false});
  }
}

void PointerData::Remove(const void* pointer, std::size_t size) {
  RemoveBlock(pointer, size, /*is_mapping=*/false);
}

void PointerData::RemoveMapping(const void* pointer, std::size_t size) {
  RemoveBlock(pointer, size, /*is_mapping=*/true);
}
