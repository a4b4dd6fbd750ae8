// SPDX-License-Identifier: Apache-2.0
// The control thread, "memleak-control", carries out commands.
//
// The tracker's handler allocates and takes locks, so it runs on this thread instead of the thread
// that received the signal. The control thread does not exist before the first command: a second
// thread makes the C library slower, and some changes of privileges and namespaces fail. If the
// control signal interrupts a wait for work, its handler starts the control thread. Otherwise the
// next allocation, on any thread, starts it.
//
// One report runs at a time: a report command waits until the previous report has ended.
#pragma once

#include <pthread.h>
#include <stdint.h>

#include "host/allocator_table.h"
#include "protocol/protocol.h"

namespace host {

using protocol::Command;

/// Wakes the thread to look for commands. If there is no thread and a command waits, requests one:
/// the next allocation starts it, or this function does if `may_start` is set. Set it only if the
/// calling thread holds no lock of the C library or of the allocator. Also makes the state file if
/// the process has none. Any thread, safe in signal handlers.
void RequestControlThread(bool may_start);

/// Waits until there is no control thread, at most about a second. For an attach. Returns 0 or an
/// errno value: ESRCH after CloseControlThread, EBUSY if the thread does not end.
int PrepareControlThread();

/// Makes the next allocation start the thread, unless it runs. An attach calls this before the
/// first command, because threads of the process may block the control signal. Any thread, safe in
/// signal handlers.
void StartControlThreadLater();

/// Starts the thread that was requested, and waits up to half a second until the commands are
/// carried out, so that the caller's block is recorded if they switch recording on. Does nothing in
/// a child of vfork, or if another thread is starting or stopping the control thread; then the next
/// allocation tries again. If the thread cannot be started, the posted commands fail with that
/// errno value, and the next request tries again. Any thread that holds no lock of the C library.
/// Keeps errno.
void StartPendingThread();

/// How long a fork or a change of privileges waits for a command. If a fork proceeds after this
/// time, the tracker may not work in the child. That is better than a program that hangs.
inline constexpr int kPatienceMs = 1000;

/// Registers fork handlers that stop the thread, so that a child never sees an unfinished command.
/// A fork waits at most `patience_ms` milliseconds for a command, and at most 3 s for a report that
/// makes progress. A parent that records starts the thread again. Call this once, after
/// track_initialize, so that the tracker's handler runs first in the child and frees its locks.
/// Returns 0 or an errno value.
int KeepCommandsAcrossForks(int patience_ms = kPatienceMs);

/// During its lifetime there is no control thread and no report, unless one of them does not end in
/// time (see KeepCommandsAcrossForks). Commands wait. Any thread. Keeps errno.
class WithoutControlThread {
 public:
  WithoutControlThread();
  ~WithoutControlThread();
  WithoutControlThread(const WithoutControlThread&) = delete;
  WithoutControlThread& operator=(const WithoutControlThread&) = delete;

 private:
  bool held_ = false;
};

/// Returns whether the process has received no command yet; a forked child, none since the fork.
/// Any thread, safe in signal handlers.
bool IsAtRest();

/// Ends the thread after its current command, for the rest of the process: later commands wait
/// forever. Returns false if the thread does not end within `timeout_ms` milliseconds, and then the
/// thread continues. Also returns false on the control thread itself, and in a child of vfork. Any
/// other thread.
bool CloseControlThread(int timeout_ms);

/// Carries out `command` on the control thread, after the commands that wait. Starts the thread if
/// necessary. Returns 0 when the command is complete, otherwise an errno value: the error of
/// pthread_create, ETIMEDOUT after `timeout_ms` milliseconds, EAGAIN if the queue is full, EDEADLK
/// on the control thread itself, ESRCH after CloseControlThread. `memory` is the memory of a new
/// thread: kArena if the caller may have interrupted the allocator.
int RunCommand(const Command& command, int timeout_ms,
               PassTracker::From memory = PassTracker::From::kNextAllocator);

/// Carries out `command` on the calling thread. For the loader's constructor: the process has no
/// other thread yet, and the caller holds no lock.
void RunCommandHere(const Command& command);

}  // namespace host
