// SPDX-License-Identifier: Apache-2.0
// Captures the allocating thread's call stack. Two settings decide what is captured.
//
// The record store calls BacktraceGet on every allocating thread. The control signal's handler
// re-reads the settings.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "protocol/protocol.h"
#include "unwindstack/Unwinder.h"

/// Prepares the unwinder, and the stack bounds for the frame-pointer walk. If the unwinder cannot
/// be prepared, that is logged and its captures have no frames. Called once, by track_initialize.
/// Allocates.
void BacktraceStartup();

/// Re-reads the type property and returns the current type, which may be invalid. Allocates
/// nothing; safe in a signal handler.
char GetBacktraceTypeFromProp();

/// The current settings. Any thread may change them at any time; a capture that races with a change
/// uses either value. In the header because every recorded allocation reads them.
inline std::atomic<char> current_backtrace_type{protocol::kUnwindFramePointers};
inline std::atomic<std::uint32_t> current_backtrace_size{protocol::kDefaultDepth};

/// The maximum number of frames per record. Any thread, any context.
inline std::uint32_t BacktraceSize() {
  return current_backtrace_size.load(std::memory_order_relaxed);
}
/// Sets it. Any thread, any context.
inline void SetBacktraceSize(std::uint32_t size) {
  current_backtrace_size.store(size, std::memory_order_relaxed);
}

/// The frame-pointer walk covers this many bytes above its first frame. It ends earlier if the
/// readable part of the stack does (platform/readable_stack.h).
inline constexpr std::uint64_t kWalkBytes = 4096;
/// Maximum number of frames that the walk returns: a frame record has two words.
inline constexpr std::size_t kWalkLimit = kWalkBytes / (2 * sizeof(std::uint64_t));
/// Maximum number of frames requested from the unwinder. Deeper stacks are of no use in a report.
inline constexpr std::size_t kUnwindLimit = 1024;

/// Returns the maximum number of frames that BacktraceGet can return with the current type, for any
/// `max_frames`: the size limit of a capture buffer. 0 for an invalid type. Any thread, any
/// context.
inline std::size_t BacktraceCaptureLimit() {
  const char type = current_backtrace_type.load(std::memory_order_relaxed);
  if (type == protocol::kUnwindFramePointers) return kWalkLimit;
  return type == protocol::kUnwindTables ? kUnwindLimit : 0;
}

/// Returns the maximum number of frames for which the capture buffer is on the stack, with the
/// current type. The limit keeps small stacks safe (coroutines, signal handlers): a recorded
/// allocation then uses at most 1 KiB of stack with frame pointers, and 1.9 KiB with the unwinder,
/// of which the unwinder itself uses up to 1 KiB. Any thread, any context.
inline std::size_t BacktraceStackFrames() {
  const char type = current_backtrace_type.load(std::memory_order_relaxed);
  return type == protocol::kUnwindFramePointers ? 36 : 24;
}

/// Fills `frames` with up to `max_frames` pcs of the calling thread, innermost first. Returns their
/// number; 0 for an invalid type, which is logged. `frame_data` is for Java-native frames and is
/// left unchanged.
///
/// The frame-pointer walk skips the three innermost levels, so the call chain must be entry -> Add
/// -> AddBacktrace -> BacktraceGet, one frame each. The 4096 bytes of the walk include the frames
/// of these levels: where the compiler places locals above the frame record (GCC on aarch64), a
/// large local buffer in them shortens the walk.
///
/// Any thread. The frame-pointer walk takes no lock, allocates nothing and is async-signal-safe.
/// For the unwinder see platform/call_stack.h.
std::size_t BacktraceGet(std::uint64_t* frames, std::size_t max_frames,
                         std::vector<unwindstack::FrameData>& frame_data);
