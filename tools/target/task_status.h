// SPDX-License-Identifier: Apache-2.0
// What /proc tells about a process and its threads. Single-threaded.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace memleak {

/// A text that changes when process `pid` executes another program.
std::string ProgramOf(pid_t pid);

/// Whether process `pid` has executed another program since ProgramOf returned `program`. False if
/// that is not known.
bool HasExecuted(pid_t pid, const std::string& program);

/// Whether a thread of process `pid` is in `state`, a letter of proc(5).
bool HasThreadInState(pid_t pid, char state);

/// Whether `signal` is pending for process `pid` or one of its threads.
bool IsPending(pid_t pid, int signal);

/// Whether all threads of process `pid` block `signal`.
bool IsBlocked(pid_t pid, int signal);

/// Whether a thread of process `pid` is to handle a signal that is pending.
bool HasDeliverableSignal(pid_t pid);

/// A thread of process `pid` that stays in an uninterruptible system call, and so cannot be
/// stopped. Takes 0.1 s if some thread is in such a call.
std::optional<pid_t> UnstoppableThread(pid_t pid);

/// The largest number of seccomp filters of a thread of process `pid`; 1 if the kernel only tells
/// that there are some.
unsigned SeccompFilters(pid_t pid);

/// The children of `pid`; empty if it has ended.
std::vector<pid_t> ChildrenOf(pid_t pid);

}  // namespace memleak
