// The subcommands: each takes its options, prints to the standard output, and returns the exit
// code. All throw UserError. Called by main alone.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

#include "tools/kinds.h"
#include "tools/launcher.h"
#include "tools/process_info.h"

namespace memleak {

/// How long a command waits for a process that is only just being started; an emulator takes its
/// time.
inline constexpr int kStartPatienceMs = 3000;

struct OnOptions {
  pid_t pid = 0;
  Kind kind = Kind::kNative;
  std::string libraries;  ///< to be hooked, separated by commas; empty: the kind's default
  std::string functions;  ///< the same
  bool keep = false;      ///< keep what is recorded already
  std::optional<std::uint32_t> depth;
  std::optional<char> type;
};

struct ReportOptions {
  pid_t pid = 0;
  Kind kind = Kind::kNative;
  std::uint32_t timeout_s = 60;  ///< 0: wait without end
};

struct FdOptions {
  pid_t pid = 0;
  std::string action;  ///< "on", "off", "dump" or "clear"
  std::optional<std::uint32_t> depth;
};

struct SendOptions {
  pid_t pid = 0;
  std::uint64_t word = 0;
  std::uint32_t parameter = 0;
};

struct ShowOptions {
  std::string report;  ///< a report, or a root directory that holds one
  std::uint32_t top = 10;
  bool partial = false;  ///< show what is there of a truncated report
};

/// Becomes the program; returns never, but by throwing.
[[noreturn]] int RunCommand(const RunOptions& options);
int OnCommand(const OnOptions& options);
/// OnCommand for the kinds that are recorded through hooks.
int HookOnCommand(const OnOptions& options);
/// Throws UserError, naming the command to be given first, when the log of `process` says that
/// native recording is on and `wanted` is a kind that is recorded through hooks, or the other way
/// round: the tracker looks blocks up by the kind of the latest command, and so loses track of
/// both. Where there is no log to be read, nothing is known and nothing is refused.
void RefuseBeside(const ProcessInfo& process, Kind wanted);
/// After a report of a hooked kind: prints what is hooked all the same, as far as slots can be
/// read.
void PrintStillHooked(const ProcessInfo& process);
int PauseCommand(pid_t pid, Kind kind);
int ClearCommand(pid_t pid, Kind kind);
int FdCommand(const FdOptions& options);
/// kExitNegative when nothing can be hooked.
int LibsCommand(pid_t pid);
int SendWordCommand(const SendOptions& options);
int ReportCommand(const ReportOptions& options);
int StatusCommand(pid_t pid);
int ShowCommand(const ShowOptions& options);

}  // namespace memleak
