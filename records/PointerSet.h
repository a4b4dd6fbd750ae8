// One shard and size class of the record store: its locks and tables.
//
// Lock order: pointer_mutex before frame_mutex; frame_mutex before unwind_mutex and before
// java_pointer_mutex. The reader of the Java-native tables holds java_pointer_mutex and then
// unwind_mutex. Operations that take every set take them in array order.
//
// Clearing raises one process-wide generation and waits for no lock. A table whose own generation
// is behind counts as empty, and the Sync function that every holder of its lock calls first
// empties it. A backtrace may be reached from a record only while both tables are of the same
// generation.
#pragma once

#include <atomic>
#include <cstdint>
#include <unordered_map>
#include <vector>

#include "records/backtrace_table.h"
#include "records/record_table.h"
#include "records/record_types.h"
#include "records/set_mutex.h"
#include "tracker/MemTrackControl.h"

/// The mark of a thread that holds every set's locks while the program's own code runs: in fork
/// handlers, and between malloc_disable and malloc_enable. It records without taking them.
inline void* const kHoldsStore = reinterpret_cast<void*>(2);

/// Marks the thread as inside the record store while it lives, and puts the former mark back.
class InsideStore {
 public:
  InsideStore() : before_(record_key.Get()) { record_key.Set(ThreadMark::kInside); }
  ~InsideStore() { record_key.Set(before_); }
  InsideStore(const InsideStore&) = delete;
  InsideStore& operator=(const InsideStore&) = delete;

  /// The mark before.
  void* before() const { return before_; }

 private:
  void* const before_;
};

/// What a record knows of its backtrace: a FrameInfoType, or a bare hash index that names none.
struct BacktraceRef {
  /// A pointer to the FrameInfoType, or hash index * 2 + 1. Never 0.
  std::uintptr_t word = 0;
  /// When it was captured, in seconds since the epoch.
  std::int64_t time = 0;
  /// Generation of the table that holds the FrameInfoType.
  std::uint64_t generation = 0;

  /// The word of a backtrace, and of a bare index.
  static std::uintptr_t WordOf(const FrameInfoType* backtrace) {
    return reinterpret_cast<std::uintptr_t>(backtrace);
  }
  static constexpr std::uintptr_t WordOf(std::uint64_t hash_index) { return hash_index * 2 + 1; }
  /// The backtrace that `word` points to; null for a bare index.
  static FrameInfoType* Backtrace(std::uintptr_t word) {
    return (word & 1) != 0 ? nullptr : reinterpret_cast<FrameInfoType*>(word);
  }
  /// The index of either. The caller holds the frame lock of the backtrace's set.
  static std::uint64_t HashIndex(std::uintptr_t word) {
    return (word & 1) != 0 ? word / 2 : Backtrace(word)->hash_index;
  }
};

/// Key of a Java-native backtrace: its frames, not owned. Only their rel_pcs count.
struct UnwindFrameKeyType {
  std::uint64_t num_frames;
  const unwindstack::FrameData* frames;
};
struct UnwindFrameKeyHash {
  /// The first five rel_pcs XORed, whatever the depth.
  std::size_t operator()(const UnwindFrameKeyType& key) const;
};
struct UnwindFrameKeyEqual {
  /// Same length, every rel_pc equal.
  bool operator()(const UnwindFrameKeyType& a, const UnwindFrameKeyType& b) const;
};

/// The current generation of all tables; raised by every clear.
extern std::atomic<std::uint64_t> table_generation;

/// Blocks that no report shows, since the last clear: there was no memory for their records or
/// backtraces.
inline std::atomic<std::uint64_t> unreported_blocks{0};

/// Serialises clearing and reports.
SetMutex& InitialiseLock();

class PointerSet {
 public:
  /// Bounds of the size class: [lower_size, upper_size).
  std::uint64_t lower_size = 0;
  std::uint64_t upper_size = 0;

  /// Guards the members up to the frame lock.
  alignas(64) SetMutex pointer_mutex;
  RecordTable pointers;
  std::atomic<std::uint64_t> pointers_generation{0};
  /// Allocation times that a backtrace has kept of an address whose record now carries another
  /// backtrace: an address that was added again without having been removed. Rarely any. Here the
  /// address of a record is a hash of address and backtrace word.
  RecordTable kept_times;

  /// Guards the members up to the spare lock.
  alignas(64) SetMutex frame_mutex;
  BacktraceTable frames;
  std::atomic<std::uint64_t> frames_generation{0};

  /// Taken by the fork handlers alone.
  alignas(64) SetMutex spare_mutex;

  /// Records whose backtrace carried Java-native frames; their hash index is an unwind index.
  /// Removal of a block leaves them: they stay until the next clear.
  SetMutex java_pointer_mutex;
  std::unordered_map<std::uint64_t, PointerInfoType> java_pointers;
  SetMutex unwind_mutex;
  std::unordered_map<UnwindFrameKeyType, std::uint64_t, UnwindFrameKeyHash, UnwindFrameKeyEqual>
      unwind_key_to_index;
  std::unordered_map<std::uint64_t, UnwindFrameInfoType> unwind_frames;
  std::uint64_t cur_unwind_index = BacktraceTable::kFirstIndex;

  /// Each empties its tables when a clear has happened since they were last used. The caller holds
  /// the lock; returns the generation that the tables are of.
  std::uint64_t SyncPointers() { return SyncPointers(CurrentGeneration()); }
  std::uint64_t SyncFrames() { return SyncFrames(CurrentGeneration()); }
  /// The same, for a reader that takes all sets as of one moment: it holds every lock and has read
  /// `generation` since.
  std::uint64_t SyncPointers(std::uint64_t generation) {
    if (pointers_generation.load(std::memory_order_relaxed) != generation) {
      EmptyPointers(generation);
    }
    return generation;
  }
  std::uint64_t SyncFrames(std::uint64_t generation) {
    if (frames_generation.load(std::memory_order_relaxed) != generation) EmptyFrames(generation);
    return generation;
  }
  static std::uint64_t CurrentGeneration() {
    return table_generation.load(std::memory_order_acquire);
  }
  /// For both Java-native tables, with both their locks held.
  void SyncJavaTables();
  /// For each alone; returns the generation that the table is of.
  std::uint64_t SyncJavaPointers();
  std::uint64_t SyncUnwindFrames();

  /// Number of records. Takes no lock, so it may be stale; a set that a clear has passed by and
  /// nobody has emptied yet counts as empty.
  std::uint64_t RecordCount() const {
    return pointers_generation.load(std::memory_order_relaxed) == CurrentGeneration()
               ? pointers.size()
               : 0;
  }

  /// Keeps the allocation time of `record`, which has a backtrace and is about to be overwritten.
  /// Without memory the time is lost. Under pointer_mutex.
  void KeepTime(const Record& record);
  /// The allocation time that the backtrace of `word` has kept of `address`, which it then keeps
  /// no longer; `otherwise` when there is none. Under pointer_mutex.
  std::int64_t TakeKeptTime(std::uint64_t address, std::uintptr_t word, std::int64_t otherwise);

 private:
  void EmptyPointers(std::uint64_t generation);
  void EmptyFrames(std::uint64_t generation);

  std::uint64_t java_pointers_generation_ = 0;
  std::uint64_t unwind_generation_ = 0;
};

/// Holds the pointer and frame locks of every set while a reader walks the tables, and the list
/// that the reader fills. The reader marks its thread first, so that its own allocations do not
/// come back here.
class FrameInfoListWithLock {
 public:
  /// Takes every pointer lock and then every frame lock, in set order, unless the thread holds them
  /// already.
  explicit FrameInfoListWithLock(bool held = false);
  virtual ~FrameInfoListWithLock();
  FrameInfoListWithLock(const FrameInfoListWithLock&) = delete;
  FrameInfoListWithLock& operator=(const FrameInfoListWithLock&) = delete;

  /// The list, empty at first; owned by this object.
  std::vector<ListInfoType>* list() { return &list_; }

 private:
  const bool held_;
  std::vector<ListInfoType> list_;
};
