// SPDX-License-Identifier: Apache-2.0
// Captures the calling thread's stack: a walk along the frame pointers, or a full unwind.
//
// BacktraceGet runs in every recorded allocation, on any thread. The control signal's handler
// changes the settings, so they are lock-free atomics.
#include "backtrace/Backtrace.h"

#include <sys/system_properties.h>

#include <algorithm>
#include <atomic>

#include "arch/frame.h"
#include "async_safe/log.h"
#include "platform/call_stack.h"
#include "platform/readable_stack.h"
#include "plthooks/trampoline.h"
#include "protocol/protocol.h"
#include "tracker/control/MemTrackControl.h"

// The walk reads frames of other functions, where a sanitizer may have red zones.
#define MEMLEAK_READS_STACK __attribute__((no_sanitize("address", "thread", "undefined")))

namespace {

static_assert(kWalkLimit == kWalkBytes / sizeof(arch::FrameRecord));
/// The tracker's own levels on the stack: AddBacktrace, Add and the exported entry.
constexpr std::size_t kSkippedLevels = 3;

std::atomic<bool> g_unwinder_ready{false};

/// Follows the frame records from `base` upward. `pc` is an address in the function that owns the
/// first record. `below` is an address on the running stack, not above `base`. Skips the first
/// `skipped` levels. Returns the number of `frames` filled.
__attribute__((always_inline)) MEMLEAK_READS_STACK inline std::size_t WalkFramePointers(
    std::uint64_t below, std::uint64_t base, std::uint64_t pc, std::size_t skipped,
    std::uint64_t* frames, std::size_t max_frames) {
  // Frames do not overlap, so only a cyclic chain could have more of them.
  max_frames = std::min(max_frames, kWalkLimit);
  if (max_frames == 0 || base == 0) return 0;
  platform::ReadableStack stack(below);
  std::uint64_t limit = 0;  // records at offsets below this from `base` are known to be readable
  const std::size_t last_level = skipped + max_frames;
  std::size_t level = 0;
  for (std::uint64_t frame = base;;) {
    // The difference wraps around for a frame pointer below `base`: one comparison checks both
    // bounds.
    bool readable = true;
    if (frame - base >= limit) {
      if (frame - base >= kWalkBytes) break;
      readable = stack.Holds(frame, sizeof(arch::FrameRecord));
      limit = std::min(stack.KnownEnd() - base - (sizeof(arch::FrameRecord) - 1), kWalkBytes);
    }
    if (level >= skipped) frames[level - skipped] = pc;
    if (++level == last_level || !readable) break;
    const auto* record = reinterpret_cast<const arch::FrameRecord*>(frame);
    pc = arch::StripReturnAddress(record->return_address) - arch::kCallSiteAdjustment;
    frame = record->caller_frame;
  }
  return level > skipped ? level - skipped : 0;
}

/// Walks from the caller of the hooked function that this thread is in. `own` is the frame pointer
/// of BacktraceGet. Returns the number of `frames` filled.
MEMLEAK_READS_STACK std::size_t WalkFromHookedCaller(std::uint64_t own, std::uint64_t* frames,
                                                     std::size_t max_frames) {
  std::uintptr_t pc = 0;
  std::uintptr_t base = 0;
  if (lumora::plthooks::get_stack_address_for_previous(&pc, &base) == 0) {
    async_safe_format_log(ANDROID_LOG_ERROR, protocol::kLogTag,
                          "get_stack_address_for_previous fail");
  }
  // In code without frame pointers the register holds an arbitrary value. The hooked caller itself
  // is known even then; its callers are not.
  if (base % arch::kFrameAlignment != 0) max_frames = std::min<std::size_t>(max_frames, 1);
  return WalkFramePointers(own, base, pc, 0, frames, max_frames);
}

/// Returns the frame record of the function that the exported entry called. `own` is the frame
/// record of BacktraceGet.
MEMLEAK_READS_STACK const arch::FrameRecord* RecordBelowEntry(const arch::FrameRecord* own) {
  for (std::size_t level = 1; level < kSkippedLevels; ++level) {
    own = reinterpret_cast<const arch::FrameRecord*>(own->caller_frame);
  }
  return own;
}

}  // namespace

void BacktraceStartup() {
  const bool ready = platform::PrepareCallStacks();
  // Not fatal: only captures with the unwinder stay empty.
  if (!ready) {
    async_safe_format_log(ANDROID_LOG_ERROR, protocol::kLogTag, "cannot prepare the unwinder");
  }
  g_unwinder_ready.store(ready, std::memory_order_release);
}

char GetBacktraceTypeFromProp() {
  char value[PROP_VALUE_MAX] = {};
  __system_property_get(protocol::kTypeProperty, value);
  // Not validated: every capture logs an invalid type.
  if (value[0] != '\0') current_backtrace_type.store(value[0], std::memory_order_relaxed);
  return current_backtrace_type.load(std::memory_order_relaxed);
}

// Not inlined: the walk counts the skipped levels from this function's frame.
__attribute__((noinline)) MEMLEAK_READS_STACK std::size_t BacktraceGet(
    std::uint64_t* frames, std::size_t max_frames,
    std::vector<unwindstack::FrameData>& /*frame_data*/) {
  const char type = current_backtrace_type.load(std::memory_order_relaxed);
  const auto* own = static_cast<const arch::FrameRecord*>(__builtin_frame_address(0));
  if (__builtin_expect(type == protocol::kUnwindFramePointers, 1)) {
    if (__builtin_expect(MemTrackControl::IsPltHook(), 0)) {
      return WalkFromHookedCaller(reinterpret_cast<std::uint64_t>(own), frames, max_frames);
    }
    const auto caller = reinterpret_cast<std::uint64_t>(__builtin_return_address(0));
    return WalkFramePointers(own->caller_frame, own->caller_frame, arch::StripReturnAddress(caller),
                             kSkippedLevels, frames, max_frames);
  }
  if (type == protocol::kUnwindTables) {
    if (!g_unwinder_ready.load(std::memory_order_acquire)) return 0;
    return platform::CallStack(RecordBelowEntry(own), frames, std::min(max_frames, kUnwindLimit));
  }
  async_safe_format_log(ANDROID_LOG_ERROR, protocol::kLogTag, "invalid backtrace type");
  return 0;
}
