// One shard and size class of the record store: its locks and its Java-native tables.
//
// The records lie in pages of the address space (record_pages.h) and the backtraces in one table
// (backtrace_table.h), since both are found without the set. A record operation holds the
// lock of one page and checks that pointer_mutex is free. Only a new backtrace or region takes
// frame_mutex. A thread that holds every pointer_mutex and has waited for the running operations
// has exclusive access to the records.
//
// Lock order: pointer_mutex before frame_mutex; frame_mutex before unwind_mutex and before
// java_pointer_mutex; all of them before the locks of pages, tables and their memory. The reader of
// the Java-native tables holds java_pointer_mutex and then unwind_mutex. Operations that take every
// set take them in array order.
//
// Clearing raises one process-wide generation and waits for no lock. A page or table whose own
// generation is behind counts as empty.
#pragma once

#include <atomic>
#include <cstdint>
#include <unordered_map>
#include <vector>

#include "records/record_types.h"
#include "records/set_mutex.h"
#include "tracker/control/MemTrackControl.h"

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

/// Blocks that no report shows, since the last clear: there was no memory for their records or
/// backtraces.
inline std::atomic<std::uint64_t> unreported_blocks{0};

/// Serialises clearing and reports.
SetMutex& InitialiseLock();

class PointerSet {
 public:
  static constexpr std::uint64_t kShardCount = 8;
  static constexpr std::uint64_t kSizeClasses = 5;
  static constexpr std::uint64_t kCount = kShardCount * kSizeClasses;

  /// The sets, kCount of them in order; null before the first MakeAll. Any thread, any context.
  static PointerSet* All() { return all_.load(std::memory_order_acquire); }
  /// Returns All() and creates the sets if there are none; null without memory. Under
  /// InitialiseLock.
  static PointerSet* MakeAll();

  /// Bounds of the size class: [lower_size, upper_size).
  std::uint64_t lower_size = 0;
  std::uint64_t upper_size = 0;

  /// Keeps record operations out.
  alignas(64) SetMutex pointer_mutex;
  /// Held by an operation that adds to the tables: a new backtrace, a new region.
  SetMutex frame_mutex;
  /// Taken by the fork handlers alone.
  SetMutex spare_mutex;

  /// Records whose backtrace carried Java-native frames; their hash index is an unwind index.
  /// Removal of a block leaves them: they stay until the next clear.
  SetMutex java_pointer_mutex;
  std::unordered_map<std::uint64_t, PointerInfoType> java_pointers;
  SetMutex unwind_mutex;
  std::unordered_map<UnwindFrameKeyType, std::uint64_t, UnwindFrameKeyHash, UnwindFrameKeyEqual>
      unwind_key_to_index;
  std::unordered_map<std::uint64_t, UnwindFrameInfoType> unwind_frames;
  /// Indexes 0 and 1 name no backtrace.
  std::uint64_t cur_unwind_index = 2;

  /// Empty the Java-native tables when a clear has happened since they were last used. The caller
  /// holds their locks. The last two return the generation that the table belongs to.
  void SyncJavaTables();
  std::uint32_t SyncJavaPointers();
  std::uint32_t SyncUnwindFrames();

 private:
  /// Never freed: other threads may be inside.
  static std::atomic<PointerSet*> all_;

  std::uint32_t java_pointers_generation_ = 0;
  std::uint32_t unwind_generation_ = 0;
};

/// Keeps every record operation out while a reader walks the tables, and holds the list that the
/// reader fills. The reader marks its thread first, so that its own allocations do not come back
/// here.
class FrameInfoListWithLock {
 public:
  /// Takes every pointer lock and then every frame lock, in set order, and waits for the operations
  /// that are inside. Nothing when the thread holds the locks already.
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
