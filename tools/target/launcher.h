// Composes how a program is started under the tracker: root directory, environment, command line.
// Called by `run` alone; the last step replaces this process.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/target/kinds.h"

namespace memleak {

/// What a person asked `run` for.
struct RunOptions {
  bool start = false;                     ///< record from before main
  bool report_at_exit = false;            ///< write a report when the program ends
  const Kind* kind = &protocol::kNative;  ///< what `start` and `report_at_exit` are about
  std::string libraries;  ///< to be hooked, separated by commas; empty: the kind's default
  std::string functions;  ///< the same
  std::optional<std::uint32_t> depth;
  std::optional<char> type;
  std::string root;      ///< as given, may hold "%p"; empty: ./memleak.<pid>
  std::string log;       ///< file or "stderr"; empty: as the environment says
  std::string libdir;    ///< where the two libraries are; empty: near the controller
  std::string emulator;  ///< command that runs programs of another architecture; empty: none
  std::vector<std::string> command;  ///< program and arguments
};

/// A change to the environment: a value, or nothing to remove the variable.
struct EnvironmentChange {
  std::string name;
  std::optional<std::string> value;
};

/// Everything needed to become the program.
struct LaunchPlan {
  std::string executable;
  std::vector<std::string> arguments;  ///< argv, program name included
  std::vector<EnvironmentChange> environment;
  std::string root;        ///< absolute, of the process itself
  std::string log;         ///< absolute, of the process itself; empty: no file was asked for
  std::string properties;  ///< text for the root's properties file
  std::string note;        ///< what a person should know; empty: nothing
};

/// Checks program, emulator and libraries, and composes the plan; changes nothing outside.
/// Reads PATH, LD_PRELOAD and the working directory of this process. Throws UserError.
LaunchPlan PlanLaunch(const RunOptions& options);

/// Writes the root directory, makes sure that the log can be written, sets the environment and
/// becomes the program. Returns only by throwing UserError.
[[noreturn]] void Launch(const LaunchPlan& plan);

}  // namespace memleak
