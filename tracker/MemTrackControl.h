// The tracker's switches, callback slots, dispatch table and per-thread keys.
//
// Written by track_initialize, track_finalize and the control signal's handler; read by every
// entry on every thread and by the record store. A leaf: it includes only the platform.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "private/bionic_malloc_dispatch.h"

/// What is being tracked: the value of `mem_track_type`.
enum MemTrackType : std::uint32_t { NATIVE = 0, MMAP = 1, ION = 2, GPU = 3 };

/// The kind in force. Written by the control signal's handler alone.
extern std::atomic<std::uint32_t> mem_track_type;
/// Marks a thread that is inside PointerData::Add or Remove; created by DebugDisableInit.
extern pthread_key_t record_key;
/// True while at least one PLT hook is installed.
extern std::atomic<bool> is_plt_hook;
/// Backtrace size and type from the parameter word of the last on command.
extern std::atomic<std::uint32_t> signal_bt_size;
extern std::atomic<std::uint32_t> signal_bt_type;

class MemTrackControl {
 public:
  static constexpr std::uint32_t kTrackerSlots = 6;

  /// A callback stored by RegistryAllocateTracker: no arguments, result ignored.
  using Tracker = void (*)();

  /// The instance, or null before the first CreateInstance and after a failed initialization.
  /// Any thread, any context.
  static MemTrackControl* GetInstance() { return instance_.load(std::memory_order_acquire); }
  /// The instance, made first when there is none. Allocates; takes no lock: only while no other
  /// thread uses the tracker.
  static MemTrackControl* CreateInstance();
  /// Frees the instance; only after a failed initialization.
  static void DestroyInstance();

  /// The kind in force (see MemTrackType). Any thread, any context.
  static std::uint32_t GetMemTrackType() { return mem_track_type.load(std::memory_order_seq_cst); }
  /// The C library's zygote-child flag, null when there is no instance or none was handed in. The
  /// owner of the flag provides four readable bytes. Any thread, any context.
  static bool* GetMallocZygoteChild() {
    const MemTrackControl* instance = GetInstance();
    return instance == nullptr ? nullptr : instance->zygote_child_;
  }
  /// Whether a PLT hook is installed. Any thread, any context.
  static bool IsPltHook() { return is_plt_hook.load(std::memory_order_relaxed); }

  /// Clears the four switches and creates the three thread keys, null in the calling thread.
  /// False when a key cannot be created, or only one whose use would allocate; that is logged, and
  /// keys made so far stay. Only from track_initialize.
  bool DebugDisableInit();
  /// Deletes the three keys, once. From here on no thread counts as allowed to record. Only from
  /// track_initialize and track_finalize.
  void DeleteKeys();

  /// The four switches: recording is on, and records may exist; for the native heap and for the
  /// hooked kinds. Sequentially consistent loads. Any thread, any context.
  bool GetHookStart() const { return hook_start_.load(std::memory_order_seq_cst); }
  bool GetHookEverStarted() const { return hook_ever_started_.load(std::memory_order_seq_cst); }
  bool GetPltHookStart() const { return plt_hook_start_.load(std::memory_order_seq_cst); }
  bool GetPltHookEverStarted() const {
    return plt_hook_ever_started_.load(std::memory_order_seq_cst);
  }
  /// Stores the pair with release order, `ever` first: who sees start set sees ever set too.
  void ConfigHookStatus(bool start, bool ever);
  /// The same for the hooked kinds. Both on any thread, in any context.
  void ConfigPltHookStatus(bool start, bool ever);

  /// True when this thread may record native blocks: its debug_disable_key is null and the keys
  /// exist. Any thread.
  bool ThreadEnabled() const {
    return keys_valid_.load(std::memory_order_acquire) &&
           pthread_getspecific(debug_disable_key_) == nullptr;
  }
  /// Marks or clears the calling thread.
  /// Nothing happens once the keys are deleted: their numbers may be another library's by then.
  void DisableThread() const { Mark(debug_disable_key_, kMark); }
  void EnableThread() const { Mark(debug_disable_key_, nullptr); }

  /// The same three for the mapping and device proxies.
  bool PltThreadEnabled() const {
    return keys_valid_.load(std::memory_order_acquire) &&
           pthread_getspecific(plt_disable_key_) == nullptr;
  }
  void DisablePltThread() const { Mark(plt_disable_key_, kMark); }
  void EnablePltThread() const { Mark(plt_disable_key_, nullptr); }

  /// The C library's allocator. Null until track_initialize.
  const MallocDispatch* dispatch() const { return dispatch_; }
  /// Keeps the table, which the C library owns. Only from track_initialize.
  void set_dispatch(const MallocDispatch* dispatch) { dispatch_ = dispatch; }
  /// Keeps the flag, which the C library owns. Only from track_initialize.
  void set_zygote_child(bool* flag) { zygote_child_ = flag; }
  /// Callback slot `index` (below kTrackerSlots); may be null.
  Tracker tracker(std::uint32_t index) const {
    return trackers_[index].load(std::memory_order_acquire);
  }
  void set_tracker(std::uint32_t index, Tracker callback) {
    trackers_[index].store(callback, std::memory_order_release);
  }

  /// The value that marks a thread; any non-null pointer would do.
  static inline void* const kMark = reinterpret_cast<void*>(1);

 private:
  void Mark(pthread_key_t key, void* mark) const {
    if (keys_valid_.load(std::memory_order_relaxed)) pthread_setspecific(key, mark);
  }

  static std::atomic<MemTrackControl*> instance_;

  std::atomic<Tracker> trackers_[kTrackerSlots] = {};
  bool* zygote_child_ = nullptr;
  const MallocDispatch* dispatch_ = nullptr;
  pthread_key_t debug_disable_key_ = 1;
  std::atomic<bool> hook_start_{false};
  std::atomic<bool> hook_ever_started_{false};
  pthread_key_t plt_disable_key_ = 1;
  std::atomic<bool> plt_hook_start_{false};
  std::atomic<bool> plt_hook_ever_started_{false};
  std::atomic<bool> keys_valid_{false};
};
