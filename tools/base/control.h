// The control protocol as a controller sees it: signal number, command words, parameter word, and
// the names of the settings and files through which a tracked process is steered.
#pragma once

#include <cstdint>

namespace memleak {

/// The signal that carries commands, as the tracked process numbers it.
inline constexpr int kControlSignal = 44;
/// The emulator shifts a guest's real-time signals by this much on the host.
inline constexpr int kEmulatedSignalShift = 2;

/// Commands for the native heap; a word may carry several, carried out from the lowest bit up.
inline constexpr std::uint64_t kNativeOn = 0x10;
inline constexpr std::uint64_t kNativePause = 0x20;
inline constexpr std::uint64_t kNativeReport = 0x40;
inline constexpr std::uint64_t kNativeClear = 0x80;

/// A report while native recording goes on. "Stop and report" of device memory takes hooks away and
/// leaves the native heap's switches alone; 0x40000 would do as well.
inline constexpr std::uint64_t kReportGoingOn = 0x4000;

/// How a backtrace is captured: the first character of the type property, and the low 16 bits of
/// the parameter word.
inline constexpr char kUnwindFramePointers = '0';
inline constexpr char kUnwindTables = '1';

/// The backtrace size in force when no property sets it, and the largest a parameter word carries.
inline constexpr std::uint32_t kDefaultDepth = 10;
inline constexpr std::uint32_t kMaxDepth = 0xffff;

/// The parameter word: backtrace size in bits 31 to 16, type character in bits 15 to 0.
constexpr std::uint32_t ParameterWord(std::uint32_t depth, char type) {
  return (depth << 16) | static_cast<unsigned char>(type);
}

/// Property names, misspelled as the tracker reads them.
inline constexpr const char* kTypeProperty = "vastel.memleak.backtacetype";
inline constexpr const char* kDepthProperty = "vastel.memleak.backtacemaxnum";

/// Files below a process's root directory.
inline constexpr const char* kPropertiesFile = "properties";
inline constexpr const char* kReportFile = "data/log/reliability/allocations_dump";

/// Environment of a tracked process.
inline constexpr const char* kRootVariable = "MEMLEAK_TRACKER_ROOT";
inline constexpr const char* kLogVariable = "MEMLEAK_TRACKER_LOG";
inline constexpr const char* kPropertiesVariable = "MEMLEAK_TRACKER_PROPERTIES";
inline constexpr const char* kStartVariable = "MEMLEAK_TRACKER_START";
inline constexpr const char* kReportAtExitVariable = "MEMLEAK_TRACKER_REPORT_AT_EXIT";

/// The two libraries that a tracked process has loaded.
inline constexpr const char* kTrackerLibrary = "libmemleak_tracker.so";
inline constexpr const char* kPreloadLibrary = "libmemleak_preload.so";

}  // namespace memleak
