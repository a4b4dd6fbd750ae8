// The thread on which every command to the tracker is carried out.
//
// Commands come as signal 44, and the tracker's handler allocates and takes locks: run on top of
// a thread that holds the allocator's lock it would hang the process. So the signal is blocked
// before the program can start a thread, all threads inherit that, and one small thread fetches
// the commands one by one. The signal stays blocked in the threads at all times, so it cannot kill
// the process either. Where the program unblocks it, a command may arrive on top of any thread.
//
// One report runs at a time: a command that asks for a report waits until the one before has ended.
// Identical commands that wait directly behind one another become one; the order of different ones
// is kept.
//
// Called by the loader's constructor and exit handler; the thread itself is "memleak-control".
#pragma once

#include <stdint.h>

namespace host {

/// What a controller sends: the siginfo's command word and parameter word.
struct Command {
  uint64_t word;
  uint32_t parameter;
  bool operator==(const Command& other) const {
    return word == other.word && parameter == other.parameter;
  }
};

/// The report commands of the native heap, mmap, ion and gpu. The tracker starts a thread for each
/// that it receives.
inline constexpr uint64_t kReportBits = 0x44440;

/// Blocks the control signal in the calling thread. Allocates nothing.
void BlockControlSignal();

/// Undoes BlockControlSignal in the calling thread, unless the signal was blocked before that.
void RestoreControlSignal();

/// Gives the control signal a handler that does nothing, if it has none. The tracker finds it
/// as the previous action and puts it back when it is finalized, so that a late command is dropped
/// instead of killing the process. A handler, other than an ignored signal, ends with exec.
void CatchLateCommands();

/// Starts the thread. Returns 0 or an errno value. Allocates. One caller at a time.
int StartControlThread();

/// Ends the thread after the command that it is carrying out, if any; later commands stay pending,
/// or fetched, for the next start. False when that takes longer than `timeout_ms`: then the thread
/// goes on. Not for the control thread itself: there it returns false.
bool StopControlThread(int timeout_ms);

/// So long a fork waits for a command; beyond, a child without a working tracker is the lesser
/// evil.
inline constexpr int kForkPatienceMs = 1000;

/// Keeps the thread across forks: it is stopped before a fork, for which the fork waits at most
/// `patience_ms`, and started anew in parent and child. The fork waits for a report that is being
/// written, too, at most 3 s, and not for one that stands still. Call it once, after
/// track_initialize, so that in the child the tracker's own fork handler has freed its locks first.
/// Returns 0 or an errno value.
int KeepControlThreadAcrossForks(int patience_ms = kForkPatienceMs);

/// Whether the control thread has a report command that waits for another report to end. Any
/// thread.
bool ReportCommandWaits();

/// Sends `command` to the control thread, as a controller would, and waits until it has been
/// carried out, which may be together with others like it. Returns 0, an errno value when it cannot
/// be sent, ETIMEDOUT after `timeout_ms`. Not for the control thread itself.
int RunCommand(const Command& command, int timeout_ms);

}  // namespace host
