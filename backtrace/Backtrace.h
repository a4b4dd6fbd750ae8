// Capture of the allocating thread's call stack, and the two settings that decide what is kept.
//
// Called by the record store on every allocating thread; the settings are re-read by the control
// signal's handler.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "protocol/protocol.h"
#include "unwindstack/Unwinder.h"

/// Prepares the unwinder and what bounds the frame-pointer walk. Once, from track_initialize. If
/// the unwinder cannot be prepared, it yields no frames. Allocates.
void BacktraceStartup();

/// Re-reads the type property; returns the type in force, which may be an invalid one.
/// Allocates nothing: safe in a signal handler.
char GetBacktraceTypeFromProp();

/// The settings in force. Plain values that any thread may change at any moment: a capture that
/// races with a change uses either. In the header because every recorded allocation reads them.
inline std::atomic<char> current_backtrace_type{protocol::kUnwindFramePointers};
inline std::atomic<std::uint32_t> current_backtrace_size{protocol::kDefaultDepth};

/// The most frames kept per record. Any thread, any context.
inline std::uint32_t BacktraceSize() {
  return current_backtrace_size.load(std::memory_order_relaxed);
}
/// Sets it. Any thread, any context.
inline void SetBacktraceSize(std::uint32_t size) {
  current_backtrace_size.store(size, std::memory_order_relaxed);
}

/// How far above its first frame the frame-pointer walk goes, in bytes. platform/readable_stack.h
/// may end it earlier.
inline constexpr std::uint64_t kWalkBytes = 4096;
/// The most frames that the walk can return: a frame record has two words.
inline constexpr std::size_t kWalkLimit = kWalkBytes / (2 * sizeof(std::uint64_t));
/// The most that the unwinder is asked for: deeper stacks are of no use in a report.
inline constexpr std::size_t kUnwindLimit = 1024;

/// The most frames that a capture with the method in force can return, whatever it is asked for:
/// the bound of a capture buffer. 0 for an invalid type.
inline std::size_t BacktraceCaptureLimit() {
  const char type = current_backtrace_type.load(std::memory_order_relaxed);
  if (type == protocol::kUnwindFramePointers) return kWalkLimit;
  return type == protocol::kUnwindTables ? kUnwindLimit : 0;
}

/// The most frames of a capture with the method in force whose buffer may be on the stack, which
/// may be a coroutine's or a signal handler's. With it, a recorded allocation takes up at most 1
/// KiB with frame pointers, and 1.9 KiB with the unwinder, which takes up to 1 KiB itself.
inline std::size_t BacktraceStackFrames() {
  const char type = current_backtrace_type.load(std::memory_order_relaxed);
  return type == protocol::kUnwindFramePointers ? 36 : 24;
}

/// Fills `frames` with up to `max_frames` pcs of the calling thread, innermost first, and returns
/// their number. The frame-pointer walk skips its three innermost levels (its caller and that
/// one's two callers), so it must be called from entry -> Add -> AddBacktrace, one frame each.
/// The walk covers 4096 bytes of stack, those levels' own frames included: where a compiler keeps
/// locals above the frame record (GCC on aarch64), a large buffer among them uses the range up.
/// `frame_data` is accepted for Java-native frames and left as it is.
/// Takes no lock of its own. The frame-pointer walk allocates nothing and is async-signal-safe. For
/// the unwinder see platform/call_stack.h.
std::size_t BacktraceGet(std::uint64_t* frames, std::size_t max_frames,
                         std::vector<unwindstack::FrameData>& frame_data);
