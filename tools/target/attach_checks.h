// SPDX-License-Identifier: Apache-2.0
// Which processes can be attached to. Single-threaded.
#pragma once

#include <string>

#include "tools/base/user_error.h"
#include "tools/target/process_info.h"

namespace memleak {

/// Throws UserError if `process` cannot be attached to, according to /proc.
void CheckAttachable(const ProcessInfo& process);

/// Throws UserError if `process` has seccomp filters of its own, which may end it when it loads the
/// tracker. A container's runtime gives all processes there a filter, which allows that.
void CheckFilters(const ProcessInfo& process);

/// The error if a debugger may not stop `process`. `output` is what the debugger said; may be
/// empty.
UserError Refused(const ProcessInfo& process, const std::string& output);

/// The error for a process that memleak run has started.
UserError StartedByRun(const ProcessInfo& process);

}  // namespace memleak
