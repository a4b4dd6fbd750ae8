// SPDX-License-Identifier: Apache-2.0
// Operations on single records: the hot path of every recorded allocation.
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

/// Not a valid location: the arena is smaller.
constexpr std::uint32_t kNoMemoryForBacktrace = UINT32_MAX;

/// The stored backtrace of a capture. 16 bytes, so it is returned in registers.
struct BacktraceRef {
  /// Location of the backtrace; 0 for none, kNoMemoryForBacktrace if there is no memory.
  std::uint32_t location;
  /// Epoch of the backtrace table at the lookup.
  std::uint32_t epoch;
  /// Generation of the store before the capture.
  std::uint32_t generation;
  /// Allocation time, as in Record.
  std::int32_t time;
};

namespace {

using record_store::backtraces;
using record_store::Generation;
using record_store::PageGuard;

/// How often an operation asks the C library's allocator for memory before it gives up. Another
/// thread may take the memory meant for this one.
constexpr int kRefills = 3;

/// Distance from a block back to its stored size, for glibc's and Android's allocators.
constexpr std::uint64_t kBlockHeader = 8;

/// Returns the size as records store it: with the zygote mark. Intentional: 0 if it is unknown
/// whether this process is a zygote child.
std::uint32_t EncodeSize(std::size_t size) {
  const bool* zygote_child = MemTrackControl::GetMallocZygoteChild();
  if (zygote_child == nullptr) return 0;
  // The flag is declared as bool, but its owner guarantees four readable bytes.
  std::uint32_t value;
  std::memcpy(&value, zygote_child, sizeof(value));
  // Intentional: the size is not masked. A size with bit 31 set reads as a zygote child's.
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

/// Gets more memory from the C library's allocator. `*refills` counts the attempts of one
/// operation. Returns false if the operation must give up.
bool Refill(bool kernel_only, int* refills) {
  return !kernel_only && (*refills)++ < kRefills && table_memory::RefillFromHeap();
}

/// Makes room in the backtrace table. Returns false if there is no memory.
bool GrowBacktraces(bool held) {
  const FrameInfoListWithLock locks(held);
  std::uint64_t records = 0;
  RecordPages::ForEach(
      [&records](std::uint64_t /*address*/, RecordPage& page) { records += page.count(); });
  return backtraces.Grow(records, [](std::uint16_t sweep) {
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

/// Adds an unknown backtrace. Returns its location; 0 if there is no memory. Sets `*epoch` to the
/// epoch of the lookup. `kernel_only`: the thread may be inside the C library's allocator or hold
/// its lock, so this does not call it.
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

/// Whether there was ever a kept time. Most programs have none and so need no search for them.
std::atomic<bool> any_kept{false};

/// Keeps the time of a record that is overwritten: a backtrace keeps its time for an address. The
/// time is lost if there is no memory or the page has very many records.
__attribute__((noinline)) void KeepTime(RecordPage& page, const Record& record) {
  // Kept times must leave room for records.
  if (page.count() >= kRecordPageBytes) return;
  page.Insert({RecordKey::Kept(record.key), 0, record.time, record.backtrace});
  any_kept.store(true, std::memory_order_relaxed);
}

/// Moves the kept time of the record's address and backtrace into `record`, if there is one.
__attribute__((noinline)) void TakeKeptTime(RecordPage& page, Record& record) {
  Record* const kept = page.FindKept(record.key, record.backtrace);
  if (kept == nullptr) return;
  record.time = kept->time;
  page.Erase(kept);
}

/// Stores a record in its page, under the page's lock. Returns false if there is no memory.
bool StoreInPage(RecordPage& page, std::uint64_t set_number, Record record) {
  Record* old = page.Find(record.key);
  if (old != nullptr && old->backtrace == record.backtrace) {
    // Same address and backtrace: the earlier time stays.
    if (record.backtrace != 0) record.time = old->time;
    *old = record;
    return true;
  }
  // TakeKeptTime and KeepTime may move the old record, so it is searched for again.
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

/// Stores the record of a new block. kTablesChanged: the backtrace must be looked up again. Drops a
/// record that was captured before a clear.
__attribute__((always_inline)) inline Stored StoreRecord(const SetChoice& choice,
                                                         std::uint64_t address, std::uint32_t size,
                                                         const BacktraceRef& ref, bool held) {
  RecordPage* page = RecordPages::Find(address);
  if (Unlikely(page == nullptr)) {
    const SetLock lock(choice.set->frame_mutex, held);
    page = RecordPages::FindOrAdd(address);
    if (page == nullptr) return Stored::kNoMemory;
  }
  const PageGuard guard(page, choice.set->pointer_mutex, held);
  if (Generation() != ref.generation) return Stored::kDone;
  if (backtraces.epoch() != ref.epoch) return Stored::kTablesChanged;
  page->DropOldRecords(ref.generation);
  const Record record{RecordKey::Of(address, choice.size_class), size, ref.time, ref.location};
  const bool stored = StoreInPage(*page, SetNumber(address, choice.size_class), record);
  return stored ? Stored::kDone : Stored::kNoMemory;
}

/// Removes the record of `address` from its page. Returns whether there was one.
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

/// Ends the pauses of native and of hooked recording if a set is empty. Intentional: one empty set
/// is enough.
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

/// Frees the memory of records older than `generation`, unless an operation is running. Waits for
/// no lock, since the thread that the clear interrupts may hold one.
void FreeOldMemory(PointerSet* sets, std::uint32_t generation) {
  std::uint64_t held = 0;
  const auto lock = [sets](std::uint64_t i) -> SetMutex& {
    PointerSet& set = sets[i % PointerSet::kCount];
    return i < PointerSet::kCount ? set.pointer_mutex : set.frame_mutex;
  };
  while (held < 2 * PointerSet::kCount && lock(held).try_lock()) ++held;
  if (held == 2 * PointerSet::kCount && RecordPages::DropAllOldRecords(generation)) {
    backtraces.TryClear();
  }
  while (held-- > 0) lock(held).unlock();
}

/// Runs `operation(bool held)` unless the thread is inside the store. `held`: the thread holds the
/// locks of all sets. Two inlined copies with a constant `held`, so that the usual one does not
/// test it.
template <typename Operation>
__attribute__((always_inline)) inline void RunUnlessInside(Operation operation) {
  void* const mark = record_key.Get();
  if (Likely(mark == nullptr)) {
    operation(/*held=*/false);
  } else if (mark == kHoldsStore) {
    operation(/*held=*/true);
  }
}

}  // namespace

bool PointerData::Initialize() {
  const std::lock_guard<SetMutex> guard(InitialiseLock());
  // The store must not record its own memory while locks are held.
  const InsideStore inside;
  PointerSet* const sets = PointerSet::MakeAll();
  if (sets == nullptr) return false;
  unreported_blocks.store(0, std::memory_order_relaxed);
  // The new generation makes the store count as empty.
  FreeOldMemory(sets, record_store::generation.fetch_add(1) + 1);
  return true;
}

std::size_t PointerData::PointerSize(const void* pointer) {
  return UsableSize(pointer);
}

__attribute__((always_inline)) inline void PointerData::AddBlock(const void* pointer,
                                                                 std::size_t size, Call call) {
  const auto address = reinterpret_cast<std::uint64_t>(pointer);
  const std::size_t class_size = call.is_mapping ? size : ClassSize(pointer, size);
  const SetChoice choice = SelectSet(address, class_size);
  if (choice.set == nullptr) return;
  const RecordPage* const page = RecordPages::Find(address);
  if (page != nullptr) page->Prefetch(address);  // arrives while the stack is walked
  record_key.Set(ThreadMark::kInside);
  for (int refills = 0;;) {
    BacktraceRef ref = AddBacktrace(BacktraceSize(), choice.set, address, size, call);
    const bool lacks_backtrace = ref.location == kNoMemoryForBacktrace;
    if (lacks_backtrace) ref.location = 0;
    const Stored stored = StoreRecord(choice, address, EncodeSize(size), ref, call.held);
    if (stored == Stored::kTablesChanged ||
        (stored == Stored::kNoMemory && Refill(call.held || call.is_mapping, &refills))) {
      call.has_java_native = call.has_java_native || !lacks_backtrace;
      continue;
    }
    // A block with an empty capture is not lost: reports never show it.
    const bool is_lost = stored == Stored::kNoMemory && ref.location != 0;
    if (Unlikely(lacks_backtrace || is_lost)) CountUnreported();
    break;
  }
  record_key.Set(call.held ? kHoldsStore : nullptr);
}

// Add, AddBacktrace and BacktraceGet must be one stack frame each in every build, since the frame
// walk skips that many levels.
__attribute__((noinline)) void PointerData::Add(const void* pointer, std::size_t size) {
  RunUnlessInside([=](bool held) __attribute__((always_inline)) {
    AddBlock(pointer, size, {/*is_mapping=*/false, held, /*has_java_native=*/false});
  });
}

__attribute__((noinline)) void PointerData::AddMapping(const void* pointer, std::size_t size) {
  RunUnlessInside([=](bool held) __attribute__((always_inline)) {
    AddBlock(pointer, size, {/*is_mapping=*/true, held, /*has_java_native=*/false});
  });
}

__attribute__((noinline)) BacktraceRef PointerData::AddBacktrace(std::size_t num_frames,
                                                                 PointerSet* set,
                                                                 std::uint64_t pointer,
                                                                 std::size_t size, Call call) {
  BacktraceRef result{0, backtraces.epoch(), Generation(), RecordTime(time(nullptr))};
  // The configured size is unbounded; the capture limit bounds the buffer.
  std::size_t max_frames = std::min(num_frames, BacktraceCaptureLimit());
  std::unique_ptr<std::uint64_t[]> heap_frames;
  // The allocator may have made the hooked call, so a mapping's buffer is never on the heap.
  const std::size_t on_stack = call.is_mapping ? kWalkLimit : BacktraceStackFrames();
  if (max_frames > on_stack) {
    if (!call.is_mapping) heap_frames.reset(new (std::nothrow) std::uint64_t[max_frames]);
    if (heap_frames == nullptr) max_frames = on_stack;
  }
  std::uint64_t* frames = heap_frames.get();
  if (frames == nullptr) {
    // Not an array: some compilers place arrays above the frame record, where it would use up half
    // of the walk's range. One element more than needed, so that the size is never 0.
    frames =
        static_cast<std::uint64_t*>(__builtin_alloca((max_frames + 1) * sizeof(std::uint64_t)));
  }
  std::vector<unwindstack::FrameData> frame_data;
  const std::size_t count = BacktraceGet(frames, max_frames, frame_data);
  if (count == 0) return result;

  const FrameKeyType key{count, frames};
  const Capture capture{key, FrameKeyHash(key), FrameFingerprint(key)};
  result.location = backtraces.Find(key, capture.hash, capture.fingerprint);
  if (Unlikely(result.location == 0)) {
    result.location =
        AddNewBacktrace(set, capture, call.held, call.held || call.is_mapping, &result.epoch);
    if (result.location == 0) {
      result.location = kNoMemoryForBacktrace;
      return result;
    }
  }
  if (!frame_data.empty() && !call.has_java_native) {
    set->AddJavaNative(pointer, EncodeSize(size), &frame_data, call.held);
  }
  return result;
}

__attribute__((always_inline)) inline void PointerData::RemoveBlock(const void* pointer,
                                                                    std::size_t size, Call call) {
  MemTrackControl* const control = MemTrackControl::GetInstance();
  if (control == nullptr) return;
  if (!control->GetHookEverStarted() && !control->GetPltHookEverStarted()) return;
  const auto address = reinterpret_cast<std::uint64_t>(pointer);
  // Most allocators store the usable size before the block. It arrives while the page is searched.
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

void PointerData::Remove(const void* pointer, std::size_t size) {
  RunUnlessInside([=](bool held) __attribute__((always_inline)) {
    RemoveBlock(pointer, size, {/*is_mapping=*/false, held, /*has_java_native=*/false});
  });
}

void PointerData::RemoveMapping(const void* pointer, std::size_t size) {
  RunUnlessInside([=](bool held) __attribute__((always_inline)) {
    RemoveBlock(pointer, size, {/*is_mapping=*/true, held, /*has_java_native=*/false});
  });
}
