// The subcommands: each takes its options, prints to the standard output, and returns the exit
// code. All throw UserError. Called by main alone.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

#include "tools/launcher.h"

namespace memleak {

struct OnOptions {
  pid_t pid = 0;
  bool keep = false;  ///< keep what is recorded already
  std::optional<std::uint32_t> depth;
  std::optional<char> type;
};

struct ReportOptions {
  pid_t pid = 0;
  std::uint32_t timeout_s = 60;  ///< 0: wait without end
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
int PauseCommand(pid_t pid);
int ClearCommand(pid_t pid);
int SendWordCommand(const SendOptions& options);
int ReportCommand(const ReportOptions& options);
int StatusCommand(pid_t pid);
int ShowCommand(const ShowOptions& options);

}  // namespace memleak
