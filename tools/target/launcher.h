// SPDX-License-Identifier: Apache-2.0
// Starts a program under the tracker. Called by `run`.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/target/kinds.h"

namespace memleak {

/// The options of `run`.
struct RunOptions : RecordingOptions {
  bool start = false;           ///< record from before main
  bool report_at_exit = false;  ///< write a report when the program ends
  std::string root;             ///< as given, may contain "%p"; empty: ./memleak.<pid>
  std::string log;              ///< file or "stderr"; empty: from the environment
  std::string libdir;    ///< directory of the tracker's two libraries; empty: near the controller
  std::string emulator;  ///< command that runs programs of another architecture; empty: none
  std::vector<std::string> command;  ///< program and arguments
};

/// The directory of the loader and the tracker for `machine`: `libdir`, or one near the controller
/// if that is empty. Throws UserError if they are not there.
std::string FindLibraries(const std::string& libdir, std::uint16_t machine);

/// Checks program, emulator and libraries, writes the root directory, sets the environment and
/// replaces this process by the program. Throws UserError on failure and never returns.
[[noreturn]] void Launch(const RunOptions& options);

}  // namespace memleak
