// SPDX-License-Identifier: Apache-2.0
// The constants that the library, the loader and the controller share. The kinds of memory and
// their commands are in kinds.h.
//
// The functions have no state, allocate nothing, take no lock and keep errno. Any thread; safe in
// signal handlers.
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace protocol {

/// The real-time signal that carries commands.
inline constexpr int control_signal = 44;
/// A user-mode emulator adds this to the numbers of its guest's real-time signals.
inline constexpr int kEmulatedSignalShift = 2;

/// The content of one signal. The bits of `word` are defined in kinds.h.
struct Command {
  std::uint64_t word;
  std::uint32_t parameter;
  bool operator==(const Command& other) const {
    return word == other.word && parameter == other.parameter;
  }
};

/// Offsets of the two words in the siginfo record. The kernel copies these bytes unchanged for
/// SI_QUEUE, in which they are the sender's ids and the value.
inline constexpr std::size_t kWordOffset = 16;
inline constexpr std::size_t kParameterOffset = 24;

/// Returns the command in the record of a received signal.
inline Command ReadCommand(const siginfo_t& info) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(&info);
  Command command{};
  std::memcpy(&command.word, bytes + kWordOffset, sizeof command.word);
  std::memcpy(&command.parameter, bytes + kParameterOffset, sizeof command.parameter);
  return command;
}

/// Returns the record that sends `command`, for rt_sigqueueinfo or rt_tgsigqueueinfo. (sigqueue
/// cannot be used, since it fills in the sender's ids.) `signal` is the number that the sender
/// uses.
inline siginfo_t MakeRecord(int signal, const Command& command) {
  siginfo_t info;
  std::memset(&info, 0, sizeof info);
  info.si_signo = signal;
  info.si_code = SI_QUEUE;
  auto* bytes = reinterpret_cast<unsigned char*>(&info);
  std::memcpy(bytes + kWordOffset, &command.word, sizeof command.word);
  std::memcpy(bytes + kParameterOffset, &command.parameter, sizeof command.parameter);
  return info;
}

/// Backtrace types: a frame-pointer walk, and the unwinder, which reads tables.
inline constexpr char kUnwindFramePointers = '0';
inline constexpr char kUnwindTables = '1';
/// Frames per record: the tracker's default, the default that the controller sets on Linux, and the
/// maximum in a parameter word.
inline constexpr std::uint32_t kDefaultDepth = 10;
inline constexpr std::uint32_t kDefaultDepthOnLinux = 32;
inline constexpr std::uint32_t kMaxDepth = 0xffff;

/// The parameter word: the backtrace size (at most kMaxDepth) in bits 31 to 16, the backtrace type
/// in bits 15 to 0.
constexpr std::uint32_t ParameterWord(std::uint32_t depth, char type) {
  return (depth << 16) | static_cast<unsigned char>(type);
}
constexpr std::uint32_t BacktraceSizeOf(std::uint32_t parameter) {
  return parameter >> 16;
}
constexpr std::uint32_t BacktraceTypeOf(std::uint32_t parameter) {
  return parameter & 0xffff;
}

/// The system properties that the tracker reads. Intentional: two are misspelled.
inline constexpr char kTypeProperty[] = "vastel.memleak.backtacetype";
inline constexpr char kDepthProperty[] = "vastel.memleak.backtacemaxnum";
inline constexpr char kHookLibraryProperty[] = "persist.sys.memleak.hookLib";
inline constexpr char kHookFunctionProperty[] = "persist.sys.memleak.hookFunc";
/// Maximum length of a property's value without its NUL: PROP_VALUE_MAX - 1.
inline constexpr std::size_t kMaxPropertyBytes = 91;
/// Separates the names in the last two properties.
inline constexpr char kNameSeparator = ',';

/// Files of a tracked process, below its root directory. On Android the root directory is "/".
inline constexpr char kReportPath[] = "/data/log/reliability/allocations_dump";
/// The profile of the same request, on Linux only: docs/profile-format.md.
inline constexpr char kProfilePath[] = "/data/log/reliability/profile";
inline constexpr char kExceptionDevice[] = "/dev/kxlog_exception";
inline constexpr char kPropertiesPath[] = "/properties";
/// The same files, relative to the root directory.
inline constexpr const char* kReportFile = kReportPath + 1;
inline constexpr const char* kProfileFile = kProfilePath + 1;
inline constexpr const char* kPropertiesFile = kPropertiesPath + 1;
/// The last bytes of a complete report. No newline follows.
inline constexpr char kReportEnd[] = "END";

/// Tag of the library's log lines.
inline constexpr char kLogTag[] = "MemLeak.Native";
/// Logged when an "on" command of a hooked kind hooks nothing.
inline constexpr char kNothingHooked[] = "all plt hook failed!";
/// Name of the anonymous mappings that hold the trampolines of hooked slots.
inline constexpr char kTrampolineName[] = "plthooks plt trampolines";
/// Name of the thread that writes a report.
inline constexpr char kDumpThread[] = "MemDumpThread";

/// Environment variables of a tracked process on Linux; docs/control-protocol.md describes them.
inline constexpr char kRootVariable[] = "MEMLEAK_TRACKER_ROOT";
inline constexpr char kLogVariable[] = "MEMLEAK_TRACKER_LOG";
inline constexpr char kPropertiesVariable[] = "MEMLEAK_TRACKER_PROPERTIES";
inline constexpr char kStartVariable[] = "MEMLEAK_TRACKER_START";
inline constexpr char kStartParameterVariable[] = "MEMLEAK_TRACKER_START_PARAMETER";
inline constexpr char kReportAtExitVariable[] = "MEMLEAK_TRACKER_REPORT_AT_EXIT";
/// Value of kLogVariable that writes the log to standard error.
inline constexpr char kLogToStderr[] = "stderr";

/// The length of the arguments in `text`, the first `bytes` bytes of /proc/self/cmdline, without
/// the NULs behind a title by which the program has replaced its arguments. An empty last argument
/// is cut, too. Any context.
inline std::size_t ArgumentBytes(const char* text, std::size_t bytes) {
  while (bytes > 1 && text[bytes - 1] == '\0' && text[bytes - 2] == '\0') --bytes;
  return bytes;
}

/// Calls put(char) for each character of `pattern`, which names a root directory or a log. Every
/// "%p" is replaced by the digits of `pid`, so that each forked child has separate files.
template <typename Put>
void ExpandPid(std::string_view pattern, pid_t pid, Put put) {
  for (std::size_t i = 0; i < pattern.size(); ++i) {
    if (pattern[i] != '%' || i + 1 == pattern.size() || pattern[i + 1] != 'p') {
      put(pattern[i]);
      continue;
    }
    ++i;
    char digits[12];
    int count = 0;
    for (pid_t rest = pid; rest > 0; rest /= 10) {
      digits[count++] = static_cast<char>('0' + rest % 10);
    }
    while (count > 0) put(digits[--count]);
  }
}

/// The two libraries that a tracked process has loaded on Linux.
inline constexpr char kTrackerLibrary[] = "libmemleak_tracker.so";
inline constexpr char kPreloadLibrary[] = "libmemleak_preload.so";

/// Name of the loader's variable (std::atomic<std::uint64_t>) that counts calls of dlclose. Each
/// call adds one before it starts and one after it ends. What the tracker caches about code in
/// memory is valid while the number does not change. Without a loader there is no such variable.
inline constexpr char kUnloadCounter[] = "memleak_unload_counter";
/// Name of the loader's variable (std::atomic<UnloadObserver>) that the tracker sets. The loader
/// calls the function on the thread that calls dlclose, before the first addition to the counter
/// (`closed` is false) and after the second (`closed` is true).
inline constexpr char kUnloadObserver[] = "memleak_unload_observer";
using UnloadObserver = void (*)(bool closed);

/// Name of the loader's variable (std::atomic<void (*)()>) that the tracker sets. The loader calls
/// the function at a detach, on the control thread. The function switches all recording off,
/// removes all hooks and drops the records.
inline constexpr char kSwitchOff[] = "memleak_switch_off";
/// Name of the loader's variable (std::atomic<const Paths*>). The tracker uses these values instead
/// of the environment. Without a loader there is no such variable.
inline constexpr char kPathsVariable[] = "memleak_paths";
/// The values of kRootVariable, kLogVariable and kPropertiesVariable. Empty: unset. A size exceeds
/// the kernel's PATH_MAX (4096), so a path that was cut to fit is still too long and opening it
/// fails with ENAMETOOLONG.
inline constexpr std::size_t kPathBytes = 4352;
struct Paths {
  char values[3][kPathBytes];
};

/// First line of a profile, without its newline.
inline constexpr char kProfileMark[] = "memleak profile 1";
/// Lower bounds of the ages, in seconds, that a stack of a profile counts separately.
inline constexpr std::int64_t kAgeBounds[] = {0, 1, 4, 15, 60, 240, 900, 3600, 14'400, 86'400};
/// Starts and continues the digest of the report's text that a profile contains (FNV-1a, 64 bits).
inline constexpr std::uint64_t kDigestStart = 0xCBF29CE484222325U;
inline std::uint64_t Digest(std::string_view text, std::uint64_t digest = kDigestStart) {
  for (const char c : text) digest = (digest ^ static_cast<unsigned char>(c)) * 0x100000001B3U;
  return digest;
}

}  // namespace protocol
