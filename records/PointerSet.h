// One shard and size class of the record store: its locks and its Java-native tables.
//
// The records themselves lie in pages of the address space (record_pages.h) and the backtraces in
// one table (backtrace_table.h), since both are found without the set. A record operation takes none
// of these locks: it holds the lock of a page and looks whether the set's pointer_mutex is held. Who
// holds the pointer_mutex of every set and has waited for the operations inside has the records to
// itself.
//
// Lock order: pointer_mutex before frame_mutex; frame_mutex before unwind_mutex and before
// java_pointer_mutex, and all of them before the locks of the tables. The reader of the Java-native
// tables holds java_pointer_mutex and then unwind_mutex. Operations that take every set take them in
// array order.
//
// Clearing raises one process-wide generation and waits for no lock. A page or table whose own
// generation is behind counts as empty.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "records/record_types.h"
#include "records/set_mutex.h"

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

/// Serialises clearing and reports.
std::mutex& InitialiseLock();

class PointerSet {
 public:
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
  std::mutex java_pointer_mutex;
  std::unordered_map<std::uint64_t, PointerInfoType> java_pointers;
  std::mutex unwind_mutex;
  std::unordered_map<UnwindFrameKeyType, std::uint64_t, UnwindFrameKeyHash, UnwindFrameKeyEqual>
      unwind_key_to_index;
  std::unordered_map<std::uint64_t, UnwindFrameInfoType> unwind_frames;
  /// Indexes 0 and 1 name no backtrace.
  std::uint64_t cur_unwind_index = 2;

  /// Empty the Java-native tables when a clear has happened since they were last used. The caller
  /// holds their locks; each returns the generation that the table is of.
  void SyncJavaTables();
  std::uint32_t SyncJavaPointers();
  std::uint32_t SyncUnwindFrames();

 private:
  std::uint32_t java_pointers_generation_ = 0;
  std::uint32_t unwind_generation_ = 0;
};

/// Keeps every record operation out while a reader walks the tables, and holds the list that the
/// reader fills. The reader sets the thread's record key first, so that its own allocations do not
/// come back here.
class FrameInfoListWithLock {
 public:
  /// Takes every pointer lock and then every frame lock, in set order, and waits for the operations
  /// that are inside.
  FrameInfoListWithLock();
  virtual ~FrameInfoListWithLock();
  FrameInfoListWithLock(const FrameInfoListWithLock&) = delete;
  FrameInfoListWithLock& operator=(const FrameInfoListWithLock&) = delete;

  /// The list, empty at first; owned by this object.
  std::vector<ListInfoType>* list() { return &list_; }

 private:
  std::vector<ListInfoType> list_;
};
