// SPDX-License-Identifier: Apache-2.0
// Names of code that a just-in-time compiler made: /tmp/perf-PID.map, which runtimes write for
// profilers. Linux only; single-threaded.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <string>
#include <utility>

namespace memleak {

/// A process as its profile describes it.
struct JitProcess {
  std::int64_t pid = 0;      ///< in its own PID namespace
  std::int64_t started = 0;  ///< seconds since the epoch
  std::string program;       ///< path of its executable
  uid_t owner = 0;           ///< of the profile
};

class JitNames {
 public:
  /// The names of `process`. A running process is looked up, also in another PID namespace, and its
  /// file is read below its root directory. The file is used only if it is a regular file with one
  /// name, belongs to the user of the process, root or the current user, and was changed after the
  /// process started: any user may create files in /tmp. A later line replaces an earlier one for
  /// the same address.
  explicit JitNames(const JitProcess& process);

  /// The name of the function that contains `pc`; empty if it is unknown.
  std::string NameOf(std::uint64_t pc) const;

 private:
  std::map<std::uint64_t, std::pair<std::uint64_t, std::string>> functions_;  // begin: end, name
};

}  // namespace memleak
