// SPDX-License-Identifier: Apache-2.0
// One shard and size class of the record store: its locks and its Java-native tables.
//
// The set has no table of records or backtraces: the records are in pages of the address space
// (record_pages.h) and the backtraces in one table (backtrace_table.h), where both are found
// without the set. A record operation holds the lock of one page and checks that pointer_mutex is
// free. Only adding a backtrace or a region takes frame_mutex. A thread that holds every
// pointer_mutex and has waited for the running operations has exclusive access to the records.
//
// Lock order: pointer_mutex before frame_mutex; frame_mutex before unwind_mutex and before
// java_pointer_mutex; all of them before the locks of pages, tables and table memory. Readers of
// the Java-native tables take java_pointer_mutex, then unwind_mutex. Operations that take the locks
// of all sets take them in array order.
//
// A clear raises one process-wide generation and waits for no lock. A page or table of an older
// generation counts as empty.
#pragma once

#include <atomic>
#include <cstdint>
#include <unordered_map>
#include <vector>

#include "records/record_types.h"
#include "records/set_mutex.h"
#include "tracker/control/MemTrackControl.h"

/// record_key of a thread that holds the locks of all sets while code outside the store runs: in
/// fork handlers, and between malloc_disable and malloc_enable. The thread records without taking
/// them.
inline void* const kHoldsStore = reinterpret_cast<void*>(2);

/// Marks the thread as inside the record store during its lifetime, then restores the old mark.
class InsideStore {
 public:
  InsideStore() : before_(record_key.Get()) { record_key.Set(ThreadMark::kInside); }
  ~InsideStore() { record_key.Set(before_); }
  InsideStore(const InsideStore&) = delete;
  InsideStore& operator=(const InsideStore&) = delete;

  /// The old mark.
  void* before() const { return before_; }

 private:
  void* const before_;
};

/// Key of a Java-native backtrace. Does not own its frames. Only their rel_pc counts.
struct UnwindFrameKeyType {
  std::uint64_t num_frames;
  const unwindstack::FrameData* frames;
};
struct UnwindFrameKeyHash {
  /// XOR of the first five rel_pcs.
  std::size_t operator()(const UnwindFrameKeyType& key) const;
};
struct UnwindFrameKeyEqual {
  /// Whether the lengths and all rel_pcs are equal.
  bool operator()(const UnwindFrameKeyType& a, const UnwindFrameKeyType& b) const;
};

/// Number of blocks since the last clear that are missing in reports, because there was no memory
/// for their record or backtrace.
inline std::atomic<std::uint64_t> unreported_blocks{0};

/// The lock that serialises clears and reports. Taken before all other locks of the store.
SetMutex& InitialiseLock();

class PointerSet {
 public:
  static constexpr std::uint64_t kShardCount = 8;
  static constexpr std::uint64_t kSizeClasses = 5;
  static constexpr std::uint64_t kCount = kShardCount * kSizeClasses;
  /// Size class i covers [kSizeBounds[i], kSizeBounds[i + 1]).
  static constexpr std::uint64_t kSizeBounds[kSizeClasses + 1] = {0, 32, 40, 80, 128, UINT64_MAX};

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
  /// Held while an operation adds a backtrace or a region.
  SetMutex frame_mutex;
  /// Taken only by the fork handlers.
  SetMutex spare_mutex;

  /// Records whose backtrace has Java-native frames. Their hash index is an unwind index.
  /// Intentional: Remove leaves them; they stay until the next clear.
  SetMutex java_pointer_mutex;
  std::unordered_map<std::uint64_t, PointerInfoType> java_pointers;
  SetMutex unwind_mutex;
  std::unordered_map<UnwindFrameKeyType, std::uint64_t, UnwindFrameKeyHash, UnwindFrameKeyEqual>
      unwind_key_to_index;
  std::unordered_map<std::uint64_t, UnwindFrameInfoType> unwind_frames;
  /// The next unwind index. Indexes 0 and 1 mean no backtrace.
  std::uint64_t cur_unwind_index = 2;

  /// Records the Java-native frames of the block at `address`; moves from `frames`. Without memory,
  /// records nothing. Takes frame_mutex (unless `held`), unwind_mutex and java_pointer_mutex.
  void AddJavaNative(std::uint64_t address, std::uint64_t encoded_size,
                     std::vector<unwindstack::FrameData>* frames, bool held);

  /// Empty the Java-native table if it is of an older generation. The caller holds the table's
  /// lock. Return the table's generation.
  std::uint32_t SyncJavaPointers();
  std::uint32_t SyncUnwindFrames();

 private:
  /// Never freed: other threads may be inside.
  static std::atomic<PointerSet*> all_;

  std::uint32_t java_pointers_generation_ = 0;
  std::uint32_t unwind_generation_ = 0;
};

/// Keeps all record operations out while a reader walks the tables, and holds the list that the
/// reader fills. The reader marks its thread first, so that its own allocations do not re-enter the
/// store.
class FrameInfoListWithLock {
 public:
  /// Takes all pointer locks, then all frame locks, in set order, and waits for the running
  /// operations. Does nothing if `held`: the thread holds the locks already.
  explicit FrameInfoListWithLock(bool held = false);
  virtual ~FrameInfoListWithLock();
  FrameInfoListWithLock(const FrameInfoListWithLock&) = delete;
  FrameInfoListWithLock& operator=(const FrameInfoListWithLock&) = delete;

  /// The list, empty at first. Owned by this object.
  std::vector<ListInfoType>* list() { return &list_; }

 private:
  const bool held_;
  std::vector<ListInfoType> list_;
};
