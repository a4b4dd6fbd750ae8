// SPDX-License-Identifier: Apache-2.0
// The kinds of memory that the tracker records, and the commands that control it.
//
// The tracker's commands, the loader's report bits, and the controller's options, help and columns
// are generated from the table here. A new kind needs a row, and proxies for its functions in
// tracker/proxies.cpp.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace protocol {

/// What is recorded: the value of `mem_track_type`, and the index of the kind's row.
enum MemTrackType : std::uint32_t { NATIVE = 0, MMAP = 1, ION = 2, GPU = 3 };

/// A row. All kinds except NATIVE are recorded through hooks: calls of `functions` go to proxies of
/// the tracker.
struct Kind {
  MemTrackType type;
  const char* name;            ///< in options and in log lines
  const char* what;            ///< for help
  unsigned first_bit;          ///< of its four commands: on, pause, stop and report, clear
  const char* switch_line;     ///< log line after on and pause; "true" or "false" follows
  bool always_selects;         ///< whether each of its commands sets `mem_track_type`, or only on
  std::string_view library;    ///< the only library it is hooked in; empty: any
  std::string_view functions;  ///< that can be hooked, separated by kNameSeparator
  std::string_view defaults;   ///< those of `functions` that are hooked unless others are named

  constexpr std::uint64_t On() const { return std::uint64_t{1} << first_bit; }
  constexpr std::uint64_t Pause() const { return On() << 1; }
  constexpr std::uint64_t Report() const { return On() << 2; }
  constexpr std::uint64_t Clear() const { return On() << 3; }
  constexpr bool IsNative() const { return type == NATIVE; }

  /// Returns whether the kind records calls of `function` in any library.
  constexpr bool Records(std::string_view function) const {
    std::string_view rest = functions;
    while (!rest.empty()) {
      const std::size_t comma = rest.find(',');
      if (rest.substr(0, comma) == function) return true;
      if (comma == std::string_view::npos) break;
      rest.remove_prefix(comma + 1);
    }
    return false;
  }
  /// Returns whether the kind records calls of `function` that the library `in_library` makes.
  constexpr bool Records(std::string_view function, std::string_view in_library) const {
    return Records(function) && (library.empty() || library == in_library);
  }
};

/// All kinds. The tracker carries out the commands in a word in the order of the rows: for each row
/// on, pause, stop and report, clear. Callbacks run after the first row, the commands for file
/// descriptors after the second.
inline constexpr Kind kKinds[] = {
    {NATIVE, "native", "blocks of the heap", 4, "set hook to:", true, "", "", ""},
    {MMAP, "mmap", "anonymous mappings", 8, "set mmaphook to:", true, "",
     "mmap,mmap64,__mmap2,mremap,munmap", "mmap,mmap64,munmap,mremap"},
    {ION, "ion", "DMA-heap buffers", 12, "set ionhook to:", false, "libdmabufheap.so", "ioctl",
     "ioctl"},
    {GPU, "gpu", "KGSL buffers", 16, "set gpuhook to:", false, "libgsl.so", "ioctl", "ioctl"},
};

constexpr const Kind& KindOf(MemTrackType type) {
  return kKinds[type];
}
inline constexpr const Kind& kNative = kKinds[NATIVE];

/// Callbacks 4 and 5 of RegistryAllocateTracker.
inline constexpr std::uint64_t kRunCallback4 = 0x2;
inline constexpr std::uint64_t kRunCallback5 = 0x4;
/// Commands for the separate library that tracks file descriptors.
inline constexpr std::uint64_t kFdOn = 0x100000;
inline constexpr std::uint64_t kFdOff = 0x200000;
inline constexpr std::uint64_t kFdDump = 0x400000;
inline constexpr std::uint64_t kFdClear = 0x800000;

/// The commands that start a report.
inline constexpr std::uint64_t kReportBits = [] {
  std::uint64_t bits = 0;
  for (const Kind& kind : kKinds) bits |= kind.Report();
  return bits;
}();

/// A report during native recording, which continues: "stop and report" of another kind removes
/// hooks and does not change the switches of native recording.
inline constexpr std::uint64_t kReportKeepRecording = KindOf(ION).Report();

}  // namespace protocol
