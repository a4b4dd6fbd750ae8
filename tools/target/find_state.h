// SPDX-License-Identifier: Apache-2.0
// Finds the state file of a process and its other files. Linux only; single-threaded.
#pragma once

#include <sys/types.h>

#include <string_view>
#include <vector>

#include "tools/target/process_info.h"

namespace memleak {

/// Drops root's file permissions to those of a process's user while it exists. The process names
/// its files: it must not make root read or write files that its own user cannot. Does nothing
/// unless the caller is root. The constructor throws UserError if that fails.
class AsUserOf {
 public:
  explicit AsUserOf(const ProcessInfo& process);
  ~AsUserOf();
  AsUserOf(const AsUserOf&) = delete;
  AsUserOf& operator=(const AsUserOf&) = delete;

 private:
  bool active_ = false;
  gid_t group_ = 0;
  std::vector<gid_t> groups_;
};

/// Sets state, has_state_of_parent, root, outside, log and shared_properties of `process`, whose
/// other members are set, from `maps`, the text of /proc/PID/maps. Sets `problem` if it has the
/// tracker and no usable state file. Without the tracker, sets only `outside`.
void FindState(std::string_view maps, ProcessInfo* process);

}  // namespace memleak
