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
#include "plthooks/trampoline.h"
#include "tracker/MemTrackControl.h"

// The walk reads other functions' frames, where a sanitizer may keep red zones, and its reads of
// the settings race on purpose.
#define MEMLEAK_READS_STACK __attribute__((no_sanitize("address", "thread", "undefined")))

namespace {

static_assert(kWalkLimit == kWalkBytes / sizeof(arch::FrameRecord));
/// The tracker's own levels: AddBacktrace, Add and the exported entry.
constexpr std::size_t kSkippedLevels = 3;
/// How far above the capture's own frame a hooked caller's may be. Between them lie the trampoline,
/// a proxy and what the caller itself has on its stack.
constexpr std::uint64_t kHookedCallerBytes = std::uint64_t{64} << 10;

/// Whether there can be stacks by the unwinder.
std::atomic<bool> g_unwinder_ready{false};

/// Follows the frame records from the one at `base` upward. `pc` is an address in the function
/// that owns it. Leaves out the first `skipped` levels. Returns how many of `frames` were filled.
__attribute__((always_inline)) MEMLEAK_READS_STACK inline std::size_t WalkFramePointers(
    std::uint64_t base, std::uint64_t pc, std::size_t skipped, std::uint64_t* frames,
    std::size_t max_frames) {
  // Frames do not overlap, so only a chain that runs in a circle could have more of them.
  max_frames = std::min(max_frames, kWalkLimit);
  if (max_frames == 0 || base == 0) return 0;
  std::size_t level = 0;
  std::size_t stored = 0;
  // The difference wraps for a frame pointer below the base, so one comparison tests both ends.
  for (std::uint64_t frame = base; frame - base < kWalkBytes; ++level) {
    if (level >= skipped) {
      frames[stored++] = pc;
      if (stored == max_frames) break;
    }
    const auto* record = reinterpret_cast<const arch::FrameRecord*>(frame);
    pc = arch::StripReturnAddress(record->return_address) - arch::kCallSiteAdjustment;
    frame = record->caller_frame;
  }
  return stored;
}

/// Walks from the caller of the hooked function that is running on this thread. `own` is the
/// capture's own frame pointer.
MEMLEAK_READS_STACK std::size_t WalkFromHookedCaller(std::uint64_t own, std::uint64_t* frames,
                                                     std::size_t max_frames) {
  std::uintptr_t pc = 0;
  std::uintptr_t base = 0;
  if (lumora::plthooks::get_stack_address_for_previous(&pc, &base) == 0) {
    async_safe_format_log(ANDROID_LOG_ERROR, "MemLeak.Native",
                          "get_stack_address_for_previous fail");
  }
  if (pc == 0 || max_frames == 0) return 0;
  // Code that was compiled without frame pointers has anything in that register: who called is
  // known all the same, and nothing above it. A stray value that passes for a frame nearby is read
  // like one; all that lies there is the stack, unless that ends first.
  const bool aligned = base % arch::kFrameAlignment == 0;
  if (!aligned || base <= own || base - own >= kHookedCallerBytes) {
    frames[0] = pc;
    return 1;
  }
  return WalkFramePointers(base, pc, 0, frames, max_frames);
}

/// The frame record of the tracker's entry, `own` being that of the capture.
MEMLEAK_READS_STACK const arch::FrameRecord* EntryRecord(const arch::FrameRecord* own) {
  for (std::size_t level = 0; level < kSkippedLevels; ++level) {
    own = reinterpret_cast<const arch::FrameRecord*>(own->caller_frame);
  }
  return own;
}

}  // namespace

void BacktraceStartup() {
  g_unwinder_ready.store(platform::PrepareCallStacks(), std::memory_order_release);
}

char GetBacktraceTypeFromProp() {
  char value[PROP_VALUE_MAX] = {};
  __system_property_get("vastel.memleak.backtacetype", value);
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
  if (__builtin_expect(type == kBacktraceFramePointer, 1)) {
    if (__builtin_expect(MemTrackControl::IsPltHook(), 0)) {
      return WalkFromHookedCaller(reinterpret_cast<std::uint64_t>(own), frames, max_frames);
    }
    const auto caller = reinterpret_cast<std::uint64_t>(__builtin_return_address(0));
    return WalkFramePointers(own->caller_frame, arch::StripReturnAddress(caller), kSkippedLevels,
                             frames, max_frames);
  }
  if (type == kBacktraceUnwinder) {
    if (!g_unwinder_ready.load(std::memory_order_acquire)) return 0;
    return platform::CallStack(EntryRecord(own), frames, std::min(max_frames, kUnwindLimit));
  }
  async_safe_format_log(ANDROID_LOG_ERROR, "MemLeak.Native", "invalid backtrace type");
  return 0;
}
