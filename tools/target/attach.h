// SPDX-License-Identifier: Apache-2.0
// Loads the tracker into a process that already runs. Single-threaded.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "tools/target/process_info.h"

namespace memleak {

/// How to attach: where the files are.
struct AttachPlaces {
  std::string root;    ///< as given, may contain "%p"; empty: the first default that is writable
  std::string log;     ///< a file, may contain "%p"; empty: none
  std::string libdir;  ///< directory of the tracker's two libraries; empty: near the controller
  bool force = false;  ///< also if the process has seccomp filters that may end it
};

/// Attaches to `process`, which InspectProcess has returned, with a debugger. Nothing is recorded
/// yet. Returns how long the process was stopped, including the calls that load the tracker, during
/// which its other threads run. Throws UserError if that is not possible; then the process runs on
/// as before.
std::chrono::microseconds AttachTo(const ProcessInfo& process, const AttachPlaces& places);

/// The default root directories of the process `pid`, as that process sees its id, in the order in
/// which AttachTo tries them. Absolute, as patterns with "%p" expanded.
std::vector<std::string> DefaultRoots(pid_t pid);

}  // namespace memleak
