// The subcommands: each takes its options, prints to the standard output, and returns the exit
// code. All throw UserError. Called by main alone.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "tools/symbols/symbol_options.h"
#include "tools/target/kinds.h"
#include "tools/target/launcher.h"
#include "tools/target/process_info.h"
#include "tools/view/show.h"

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
  bool keep_recording = false;   ///< of the native heap
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
  std::string report;  ///< a report, a root directory that holds one, or a report's JSON document
  ViewOptions view;
  std::optional<std::size_t> top;  ///< default: 10; with --json all
  SymbolOptions symbols;
  bool partial = false;  ///< show what is there of a truncated report
  bool json = false;
};

struct HtmlOptions {
  std::string report;  ///< a report, a root directory that holds one, or an exported document
  std::string old;     ///< an older report to compare with; empty for none
  std::string output;
  SymbolOptions symbols;
  OldSymbolOptions old_symbols;  ///< for `old` alone
  bool partial = false;          ///< show what is there of a truncated report
};

struct DiffOptions {
  std::string before;  ///< a report, a root directory that holds one, or a report's JSON document
  std::string after;   ///< the same
  std::size_t top = 10;
  SymbolOptions symbols;
  OldSymbolOptions old_symbols;            ///< for `before` alone
  std::optional<std::uint64_t> fail_over;  ///< bytes of growth that are still well
  bool json = false;
  bool partial = false;
};

struct ExportOptions {
  std::string report;  ///< a report, a root directory that holds one, or a report's JSON document
  std::string format;  ///< "folded", "speedscope", "pprof", "json" or "html"
  std::string by;      ///< "bytes" or "count", for folded stacks
  std::string output;  ///< a file; empty: the standard output
  SymbolOptions symbols;
  bool partial = false;
};

/// Becomes the program; returns never, but by throwing.
[[noreturn]] int RunCommand(const RunOptions& options);
int OnCommand(const OnOptions& options);
/// OnCommand for the kinds that are recorded through hooks.
int HookOnCommand(const OnOptions& options);
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
int HtmlCommand(const HtmlOptions& options);
/// kExitNegative when the totals, native and Java-native, grew by more than `fail_over`.
int DiffCommand(const DiffOptions& options);
int ExportCommand(const ExportOptions& options);

}  // namespace memleak
