// Capture of the calling thread's stack: a walk along the frame pointers, or a full unwind.
//
// BacktraceGet runs inside every recorded allocation, on any thread. The settings are re-read by
// the control signal's handler, so they are atomics and nothing else.
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

// The walk reads other functions' frames, where a sanitizer may keep red zones, and its reads of
// the settings race on purpose.
#define MEMLEAK_READS_STACK __attribute__((no_sanitize("address", "thread", "undefined")))

namespace {

static_assert(kWalkLimit == kWalkBytes / sizeof(arch::FrameRecord));
/// The tracker's own levels: AddBacktrace, Add and the exported entry.
constexpr std::size_t kSkippedLevels = 3;

/// Whether the unwinder is ready.
std::atomic<bool> g_unwinder_ready{false};

/// Follows the frame records from the one at `base` upward. `pc` is an address in the function
/// that owns it, `below` an address on the running stack that is not above `base`. Leaves out the
/// first `skipped` levels. Returns how many of `frames` were filled.
__attribute__((always_inline)) MEMLEAK_READS_STACK inline std::size_t WalkFramePointers(
    std::uint64_t below, std::uint64_t base, std::uint64_t pc, std::size_t skipped,
    std::uint64_t* frames, std::size_t max_frames) {
  // Frames do not overlap, so only a chain that runs in a circle could have more of them.
  max_frames = std::min(max_frames, kWalkLimit);
  if (max_frames == 0 || base == 0) return 0;
  platform::ReadableStack stack(below);
  std::uint64_t limit = 0;  // records that begin less than this above the base may be read
  const std::size_t last_level = skipped + max_frames;
  std::size_t level = 0;
  for (std::uint64_t frame = base;;) {
    // The difference wraps for a frame pointer below the base, so one comparison tests both ends.
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

/// Walks from the caller of the hooked function that is running on this thread. `own` is the
/// capture's own frame pointer.
MEMLEAK_READS_STACK std::size_t WalkFromHookedCaller(std::uint64_t own, std::uint64_t* frames,
                                                     std::size_t max_frames) {
  std::uintptr_t pc = 0;
  std::uintptr_t base = 0;
  if (lumora::plthooks::get_stack_address_for_previous(&pc, &base) == 0) {
    async_safe_format_log(ANDROID_LOG_ERROR, protocol::kLogTag,
                          "get_stack_address_for_previous fail");
  }
  // Code that was compiled without frame pointers has any value in that register. The hooked caller
  // is known even then, its callers are not.
  if (base % arch::kFrameAlignment != 0) max_frames = std::min<std::size_t>(max_frames, 1);
  return WalkFramePointers(own, base, pc, 0, frames, max_frames);
}

/// The frame record of the function that the tracker's entry called. `own` is the capture's own.
MEMLEAK_READS_STACK const arch::FrameRecord* RecordBelowEntry(const arch::FrameRecord* own) {
  for (std::size_t level = 1; level < kSkippedLevels; ++level) {
    own = reinterpret_cast<const arch::FrameRecord*>(own->caller_frame);
  }
  return own;
}

}  // namespace

void BacktraceStartup() {
  platform::PrepareReadableStack();
  const bool ready = platform::PrepareCallStacks();
  // The tracker starts; captures by this method stay empty.
  if (!ready) {
    async_safe_format_log(ANDROID_LOG_ERROR, protocol::kLogTag, "cannot prepare the unwinder");
  }
  g_unwinder_ready.store(ready, std::memory_order_release);
}

char GetBacktraceTypeFromProp() {
  char value[PROP_VALUE_MAX] = {};
  __system_property_get(protocol::kTypeProperty, value);
  // Not validated: an invalid type shows at every capture.
  if (value[0] != '\0') current_backtrace_type.store(value[0], std::memory_order_relaxed);
  return current_backtrace_type.load(std::memory_order_relaxed);
}

// Never inlined: the levels that the walk skips are counted from this function's own frame.
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
