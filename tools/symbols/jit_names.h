// SPDX-License-Identifier: Apache-2.0
// Names of code that a just-in-time compiler made: /tmp/perf-PID.map, which runtimes write for
// profilers. Single-threaded.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>

namespace memleak {

class JitNames {
 public:
  /// No names.
  JitNames() = default;
  /// Those of the process `pid`, if its file is there and was changed since the process started, in
  /// seconds since the epoch. A later line replaces an earlier one for the same address.
  JitNames(std::int64_t pid, std::int64_t started);

  /// The name of the function that contains `pc`; empty if it is unknown.
  std::string NameOf(std::uint64_t pc) const;

 private:
  std::map<std::uint64_t, std::pair<std::uint64_t, std::string>> functions_;  // begin: end, name
};

}  // namespace memleak
