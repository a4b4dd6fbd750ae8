// Capture of the allocating thread's call stack, and the two settings that decide what is kept.
//
// Called by the record store on every allocating thread; the settings are re-read by the control
// signal's handler.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "unwindstack/Unwinder.h"

/// Backtrace types: the first character of the property "vastel.memleak.backtacetype".
inline constexpr char kBacktraceFramePointer = '0';
inline constexpr char kBacktraceUnwinder = '1';

/// Frames kept per record until the property "vastel.memleak.backtacemaxnum" says otherwise.
inline constexpr std::uint32_t kDefaultBacktraceSize = 10;

/// Creates the unwinder's maps and process memory. Once, from track_initialize; without readable
/// maps the unwinder yields no frames. Allocates.
void BacktraceStartup();

/// Re-reads the type property; returns the type in force, which may be an invalid one.
/// Allocates nothing: safe in a signal handler.
char GetBacktraceTypeFromProp();

/// The most frames kept per record. Any thread, any context.
std::uint32_t BacktraceSize();
/// Sets it; whoever captures at that moment uses either value.
void SetBacktraceSize(std::uint32_t size);

/// The most frames that a capture with the method in force can return, whatever it is asked for:
/// the bound of a capture buffer. 0 for an invalid type.
std::size_t BacktraceCaptureLimit();

/// Fills `frames` with up to `max_frames` pcs of the calling thread, innermost first, and returns
/// their number. The frame-pointer walk skips its three innermost levels (its caller and that
/// one's two callers), so it must be called from entry -> Add -> AddBacktrace, one frame each.
/// The walk covers 4096 bytes of stack, those levels' own frames included: where a compiler keeps
/// locals above the frame record (GCC on aarch64), a large buffer among them uses the range up.
/// `frame_data` is accepted for Java-native frames and left as it is.
/// Takes no lock of its own; the frame-pointer walk allocates nothing, the unwinder does.
std::size_t BacktraceGet(std::uint64_t* frames, std::size_t max_frames,
                         std::vector<unwindstack::FrameData>& frame_data);
