// SPDX-License-Identifier: Apache-2.0
// The tracker's switches, callback slots, dispatch table and thread marks.
//
// Written by track_initialize, track_finalize and the control signal's handler. Read by every
// entry on every thread, by the record store and by the capture of backtraces.
#pragma once

#include <atomic>
#include <cstdint>

#include "platform/thread_mark.h"
#include "private/bionic_malloc_dispatch.h"
#include "protocol/kinds.h"

using protocol::MemTrackType;
using protocol::NATIVE;

/// The current kind, a MemTrackType. Written only by the control signal's handler.
extern std::atomic<std::uint32_t> mem_track_type;
/// Marks a thread that is inside the record store.
extern ThreadMark record_key;
/// True while at least one PLT hook is installed.
extern std::atomic<bool> is_plt_hook;
/// Backtrace size and type from the parameter word of the latest native or fd "on"; 0 after a
/// native or fd clear.
extern std::atomic<std::uint32_t> signal_bt_size;
extern std::atomic<std::uint32_t> signal_bt_type;

class MemTrackControl {
 public:
  static constexpr std::uint32_t kTrackerSlots = 6;

  /// A callback stored by RegistryAllocateTracker: no arguments, result ignored.
  using Tracker = void (*)();

  /// Returns the instance; null before the first CreateInstance and after a failed initialization.
  /// Any thread, any context.
  static MemTrackControl* GetInstance() { return instance_.load(std::memory_order_acquire); }
  /// Returns the instance and creates it if there is none; null if there is no memory. Takes no
  /// lock, so call it only while no other thread uses the tracker.
  static MemTrackControl* CreateInstance();
  /// Frees the instance; only after a failed initialization.
  static void DestroyInstance();

  /// The current kind (see MemTrackType). Any thread, any context.
  static std::uint32_t GetMemTrackType() { return mem_track_type.load(std::memory_order_seq_cst); }
  /// The C library's zygote-child flag; null if there is no instance or before set_zygote_child.
  /// Four bytes are readable there. Any thread, any context.
  static bool* GetMallocZygoteChild() {
    const MemTrackControl* instance = GetInstance();
    return instance == nullptr ? nullptr : instance->zygote_child_;
  }
  /// Whether a PLT hook is installed. Any thread, any context.
  static bool IsPltHook() { return is_plt_hook.load(std::memory_order_relaxed); }

  /// Clears the four switches and creates the three thread marks. Returns false, logged, if a mark
  /// cannot be created; the marks before it stay. Only from track_initialize.
  bool DebugDisableInit();
  /// Deletes the three marks. Then no thread records any more. Only from track_initialize and
  /// track_finalize.
  void DeleteKeys();

  /// The four switches: whether recording is on, and whether records may exist, for the native heap
  /// and for the hooked kinds. Sequentially consistent loads. Any thread, any context.
  bool GetHookStart() const { return hook_start_.load(std::memory_order_seq_cst); }
  bool GetHookEverStarted() const { return hook_ever_started_.load(std::memory_order_seq_cst); }
  bool GetPltHookStart() const { return plt_hook_start_.load(std::memory_order_seq_cst); }
  bool GetPltHookEverStarted() const {
    return plt_hook_ever_started_.load(std::memory_order_seq_cst);
  }
  /// Stores both flags with release order, `ever` first: a thread that sees `start` set also sees
  /// `ever` set. Any thread, any context.
  void ConfigHookStatus(bool start, bool ever);
  /// The same for the hooked kinds.
  void ConfigPltHookStatus(bool start, bool ever);

  /// Whether the calling thread may record native blocks. Disable marks the thread, Enable removes
  /// the mark. Any thread, any context.
  bool ThreadEnabled() const { return debug_disable_key_.Get() == nullptr; }
  void DisableThread() const { debug_disable_key_.Set(ThreadMark::kInside); }
  void EnableThread() const { debug_disable_key_.Set(nullptr); }

  /// The same for the mapping and device proxies.
  bool PltThreadEnabled() const { return plt_disable_key_.Get() == nullptr; }
  void DisablePltThread() const { plt_disable_key_.Set(ThreadMark::kInside); }
  void EnablePltThread() const { plt_disable_key_.Set(nullptr); }

  /// The C library's allocator. Null until track_initialize.
  const MallocDispatch* dispatch() const { return dispatch_; }
  /// Keeps the pointer; the C library owns the table. Only from track_initialize.
  void set_dispatch(const MallocDispatch* dispatch) { dispatch_ = dispatch; }
  /// Keeps the pointer; the C library owns the flag. Only from track_initialize.
  void set_zygote_child(bool* flag) { zygote_child_ = flag; }
  /// Callback slot `index` (below kTrackerSlots); may be null.
  Tracker tracker(std::uint32_t index) const {
    return trackers_[index].load(std::memory_order_acquire);
  }
  void set_tracker(std::uint32_t index, Tracker callback) {
    trackers_[index].store(callback, std::memory_order_release);
  }

 private:
  static std::atomic<MemTrackControl*> instance_;

  std::atomic<Tracker> trackers_[kTrackerSlots] = {};
  bool* zygote_child_ = nullptr;
  const MallocDispatch* dispatch_ = nullptr;
  ThreadMark debug_disable_key_{0};
  std::atomic<bool> hook_start_{false};
  std::atomic<bool> hook_ever_started_{false};
  ThreadMark plt_disable_key_{1};
  std::atomic<bool> plt_hook_start_{false};
  std::atomic<bool> plt_hook_ever_started_{false};
};
