// SPDX-License-Identifier: Apache-2.0
// The thread that carries out commands: "memleak-control".
//
// The tracker's handler allocates and takes locks, so it runs on a thread of its own and not where
// the signal arrives. A process has no such thread until it gets its first command: a second thread
// costs time in the C library, and changes of privileges and namespaces fail. The handler of the
// control signal starts it if the signal has interrupted a wait for work. Else it makes the next
// allocation, on any thread, start it.
//
// One report runs at a time: a report command waits until the previous report has ended.
#pragma once

#include <pthread.h>
#include <stdint.h>

#include "host/allocator_table.h"
#include "protocol/protocol.h"

namespace host {

using protocol::Command;

/// Tells the thread that a command may wait, or asks for the thread if there is none: the next
/// allocation starts it. If `may_start` is set, the caller holds no lock of the C library or of the
/// allocator, and the thread is started here. Also makes the state file if the process has none.
/// Safe in signal handlers. Any thread.
void RequestControlThread(bool may_start);

/// Makes sure that there is no thread. For an attach. Returns 0 or an errno value: ESRCH after
/// CloseControlThread, EBUSY if a thread does not end.
int PrepareControlThread();

/// Makes the next allocation start the thread unless it runs. An attach calls it before there is a
/// command, since the process may block the control signal or wait for it. Any thread, safe in
/// signal handlers.
void StartControlThreadLater();

/// Starts the thread that RequestControlThread has asked for, and waits up to half a second until
/// the commands are carried out: the caller's block is recorded if they switch recording on. Does
/// nothing if another thread starts or stops it, or in a child of vfork; then the next allocation
/// tries again. If the thread cannot be started, the posted commands fail with the reason, and the
/// next request tries again. Any thread that holds no lock of the C library. Keeps errno.
void StartPendingThread();

/// How long a fork or a change of privileges waits for a command. After that a forked child may
/// have no working tracker. A program that hangs would be worse.
inline constexpr int kPatienceMs = 1000;

/// Makes forks stop the thread: the child never sees an unfinished command. A fork waits at most
/// `patience_ms` for a command, and at most 3 s for a report, unless the report makes no progress.
/// The parent starts the thread again if it records. Call it once, after track_initialize, so that
/// in the child the tracker's own fork handler frees its locks first. Returns 0 or an errno value.
int KeepCommandsAcrossForks(int patience_ms = kPatienceMs);

/// While it exists, there is no control thread and no report, unless one of them takes too long
/// (see KeepCommandsAcrossForks). Commands wait. Any thread. Keeps errno.
class WithoutControlThread {
 public:
  WithoutControlThread();
  ~WithoutControlThread();
  WithoutControlThread(const WithoutControlThread&) = delete;
  WithoutControlThread& operator=(const WithoutControlThread&) = delete;

 private:
  bool held_ = false;
};

/// Whether there was no command yet; in a forked child, since the fork. Any thread, safe in signal
/// handlers.
bool IsAtRest();

/// Ends the thread after its current command, if any, and starts none any more: later commands wait
/// forever. Returns false if that takes longer than `timeout_ms`; then the thread continues.
/// Returns false on the control thread itself.
bool CloseControlThread(int timeout_ms);

/// Carries out `command` on the control thread, which it starts if necessary, after the commands
/// that wait. Returns 0 when it is complete, or an errno value: that of starting the thread,
/// ETIMEDOUT after `timeout_ms`, EAGAIN if too many commands wait, EDEADLK on the control thread
/// itself, ESRCH after CloseControlThread.
/// `memory` is kArena if the caller may have interrupted the allocator.
int RunCommand(const Command& command, int timeout_ms,
               PassTracker::From memory = PassTracker::From::kNextAllocator);

/// Carries out `command` on the calling thread. For the loader's constructor, which holds no lock
/// and runs alone.
void RunCommandHere(const Command& command);

}  // namespace host
