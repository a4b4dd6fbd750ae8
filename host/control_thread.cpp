// SPDX-License-Identifier: Apache-2.0
// Starts and stops the control thread, and carries out commands on it.
#include "host/control_thread.h"

#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>

#include "host/allocator_table.h"
#include "host/carry_out.h"
#include "host/clock.h"
#include "host/command_queue.h"
#include "host/fork_page.h"
#include "host/form.h"
#include "host/record_count.h"
#include "host/reports.h"
#include "host/signal_actions.h"
#include "host/state.h"
#include "protocol/kinds.h"

namespace host {
namespace {

using ThreadState = protocol::ControlThread;

constexpr char kThreadName[] = "memleak-control";
// How often the thread checks whether a report has ended. Most take some milliseconds.
constexpr int kPollMs = 2;
// How long a fork waits for a report that makes progress. After that the fork proceeds, and the
// child frees the record store's locks.
constexpr int kForkReportMs = 3000;
// How long the allocation that starts the thread waits for the commands: the allocation is recorded
// if they switch recording on. Limited, because its thread may hold a lock that a command needs.
constexpr int kSettleMs = 500;

// Stack sizes to try in this order. The first is enough for the tracker's handler. The stack also
// contains the program's thread-local variables, which may be larger.
constexpr size_t kStackBytes[] = {size_t{256} << 10, size_t{8} << 20, size_t{64} << 20};

// Held while the thread is started or stopped, and by RunCommand until its command is complete. A
// forking thread holds it until both processes exist.
MEMLEAK_FORK_PAGE pthread_mutex_t change_lock = PTHREAD_MUTEX_INITIALIZER;
// Guarded by change_lock: the thread, whether it was started and not joined yet, and whether no
// thread may be started any more.
pthread_t thread;
bool thread_started = false;
bool closed = false;
// Whether the fork that holds change_lock has stopped the thread.
MEMLEAK_FORK_PAGE bool stopped_here = false;
// True until the first command of this process. While it is true, a forked child has nothing to
// reset.
MEMLEAK_FORK_PAGE std::atomic<bool> at_rest{true};

// The thread's id; 0 while there is no thread.
std::atomic<int> thread_id{0};
enum Stop : int { kRun, kStopWanted, kStopped };
std::atomic<int> stop{kRun};
// The latest ticket that RunCommand has used (guarded by change_lock), and the latest ticket whose
// command is complete.
uint32_t own_ticket = 0;
std::atomic<uint32_t> own_done{0};

// Set to 1 when a new thread has carried out all commands that need not wait.
std::atomic<uint32_t> settled{0};

// The thread whose fork holds change_lock; 0 if none. Another thread's fork may proceed without the
// lock after a timeout.
MEMLEAK_FORK_PAGE std::atomic<pthread_t> forking_thread{0};
int fork_patience_ms = 0;  // set before the fork handlers are registered

int ThreadId() {
  return static_cast<int>(syscall(SYS_gettid));
}

bool Lock(const timespec& until) {
  return pthread_mutex_trylock(&change_lock) == 0 ||
         pthread_mutex_timedlock(&change_lock, &until) == 0;
}

bool OnControlThread() {
  const int id = thread_id.load();
  return id != 0 && id == ThreadId();
}

/// Returns all signals except those that the control thread's own faults raise: the tracker
/// recovers from some faults. (sigfillset leaves out the C library's internal signals.)
sigset_t AsynchronousSet() {
  sigset_t set;
  sigfillset(&set);
  constexpr int kFaults[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGTRAP, SIGSYS, SIGABRT};
  for (const int fault : kFaults) {
    sigdelset(&set, fault);
  }
  return set;
}

/// Ends the control thread, which calls this, after the loader has detached. Another thread may be
/// stopping it at the same time. The state continues to say that the thread runs: otherwise the
/// controller would send the control signal, which belongs to the program again and may end it.
void End(const Taken& detach) {
  bool locked = false;
  for (int wanted = kStopWanted; !locked && !stop.compare_exchange_strong(wanted, kStopped);
       wanted = kStopWanted) {
    locked = pthread_mutex_trylock(&change_lock) == 0;
    if (!locked) SleepMs(1);
  }
  // Acknowledged under the lock, for which the next attach waits.
  Acknowledge(detach, 0);
  RefusePosted(ESRCH);
  if (!locked) return;
  thread_started = false;
  thread_id.store(0);
  pthread_detach(pthread_self());
  pthread_mutex_unlock(&change_lock);
}

void* ControlThread(void*) {
  prctl(PR_SET_NAME, kThreadName, 0, 0, 0);
  thread_id.store(ThreadId());
  for (;;) {
    if (!ReportRuns()) MakeStateFile();
    State& state = CurrentState();
    state.control_thread.store(ThreadState::kRunning);
    const uint32_t bell = state.bell.load();
    int wanted = kStopWanted;
    if (stop.compare_exchange_strong(wanted, kStopped)) return nullptr;
    if (CountWaits()) CountRecords();
    Command command;
    const bool waits = FirstCommand(command);
    if (waits && !MustWait(command)) {
      const CarriedOut done = CarryOutFirst();
      if (done.ticket != 0) {
        own_done.store(done.ticket);
        WakeWaiters(own_done);
      }
      if (!done.detached) continue;
      End(done.taken);
      return nullptr;
    }
    if (settled.exchange(1) == 0) WakeWaiters(settled);
    WaitWhile(state.bell, bell, waits ? kPollMs : -1);
  }
}

/// Returns 0 or an errno value.
int CreateThread(PassTracker::From memory) {
  // Recording may be on, and must not record the memory of this thread.
  const PassTracker pass(memory);
  int error = EINVAL;
  for (const size_t bytes : kStackBytes) {
    if (error != EINVAL) break;
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    // With an explicit size, pthread_create does not take the lock of the default attributes, which
    // the caller may hold.
    pthread_attr_setstacksize(&attributes, bytes);
    error = pthread_create(&thread, &attributes, ControlThread, nullptr);
    pthread_attr_destroy(&attributes);
  }
  return error;
}

/// Starts the thread unless it runs. The caller holds change_lock. Returns 0 or an errno value.
int Start(PassTracker::From memory = PassTracker::From::kNextAllocator) {
  if (thread_started) {
    RestoreAllocator();
    return 0;
  }
  // Stored first, so that a signal handler does not request a second thread.
  CurrentState().control_thread.store(ThreadState::kRunning);
  const sigset_t blocked = AsynchronousSet();
  sigset_t before;
  pthread_sigmask(SIG_BLOCK, &blocked, &before);
  stop.store(kRun);
  settled.store(0);
  const int error = CreateThread(memory);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  thread_started = error == 0;
  if (!thread_started) CurrentState().control_thread.store(ThreadState::kNone);
  return error;
}

/// Starts the thread if it is pending. Returns 0 or an errno value.
int TryStart() {
  if (pthread_mutex_trylock(&change_lock) != 0) return EBUSY;
  int error = EBUSY;
  RestoreAllocator();
  if (!closed && CurrentState().control_thread.load() == ThreadState::kPending) {
    error = Start();
    if (error != 0) RefusePosted(error);
  }
  pthread_mutex_unlock(&change_lock);
  return error;
}

/// Under change_lock.
bool StopUntil(const timespec& moment) {
  if (!thread_started) return true;
  stop.store(kStopWanted);
  RingBell();
  // A join is a cancellation point; fork and exit are not.
  int cancel_state;
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancel_state);
  int error = pthread_timedjoin_np(thread, nullptr, &moment);
  int wanted = kStopWanted;
  // The join has timed out, unless the thread has just decided to stop.
  if (error != 0 && !stop.compare_exchange_strong(wanted, kRun)) {
    error = pthread_join(thread, nullptr);
  }
  pthread_setcancelstate(cancel_state, nullptr);
  if (error != 0) return false;
  thread_started = false;
  WaitForRemoval(thread_id.exchange(0));
  if (IsActive()) CurrentState().control_thread.store(ThreadState::kNone);
  return true;
}

/// Stops the thread and waits for a report. Returns whether the caller now holds change_lock.
///
/// The thread must end before a fork: an emulated child can start threads only if its parent had no
/// others (qemu 7.2 miscounts them in a fork). A report must end, because it holds locks of the
/// tracker and of the allocator, which would stay locked in the child.
bool StopAll(int patience_ms) {
  if (OnControlThread() || !Lock(WallClock(patience_ms))) return false;
  stopped_here = false;
  if (!thread_started && CurrentState().report_thread.load() == 0 && !ReportRuns()) return true;
  const bool started = thread_started;
  const bool stopped = StopUntil(WallClock(patience_ms));
  const bool reported = WaitWhileReportRuns(kForkReportMs);
  // The thread's command may have waited for the report, as "clear" does.
  if (!stopped && reported) StopUntil(WallClock(patience_ms));
  stopped_here = started && !thread_started;
  return true;
}

/// Returns whether there is work for the thread: a command, or a request to count records.
bool WorkWaits() {
  return CommandWaits() || CountWaits();
}

/// Releases change_lock. If there is work, requests the thread again: the earlier request found a
/// thread that was about to stop.
void Unlock() {
  if (!thread_started && !closed && IsActive() && WorkWaits()) StartControlThreadLater();
  pthread_mutex_unlock(&change_lock);
}

void BeforeFork() {
  // A child of vfork or of a direct clone call has no thread to stop.
  if (!OwnsState() || !IsActive()) return;
  // A command that a handler in the child received before AfterForkInChild would be lost.
  BlockControlSignal(true);
  if (StopAll(fork_patience_ms)) forking_thread.store(pthread_self());
}

void AfterForkInParent() {
  const bool held = forking_thread.load() == pthread_self();
  if (held) {
    forking_thread.store(0);
    // A parent that records may do nothing but wait for its children, so its reports must not
    // depend on its next allocation.
    if (stopped_here && Records()) Start();
    Unlock();
  }
  if (held || IsActive()) BlockControlSignal(false);
}

void AfterForkInChild() {
  const bool held = forking_thread.exchange(0) == pthread_self();
  ForgetCommands();  // the parent carries them out
  const bool rested = at_rest.exchange(true);
  change_lock = PTHREAD_MUTEX_INITIALIZER;
  ForkState(rested);
  if (!rested) {
    thread_started = false;
    thread_id.store(0);
    stop.store(kRun);
    ForgetReportCommand();
  }
  if (!rested && IsActive()) RestoreAllocator();
  // Checks `held` too: the loader may have been detached after BeforeFork.
  if (held || IsActive()) BlockControlSignal(false);
}

/// As RunCommand. The caller holds change_lock.
int AddAndWait(const Command& command, int timeout_ms, PassTracker::From memory) {
  at_rest.store(false);
  const int64_t deadline = NowMs() + timeout_ms;
  if (closed) return ESRCH;
  if (const int error = Start(memory); error != 0) return error;
  const uint32_t ticket = ++own_ticket;
  if (!AddCommand(command, ticket)) return EAGAIN;
  RingBell();
  for (;;) {
    const uint32_t done = own_done.load();
    if (done == ticket) return 0;
    const int64_t left = deadline - NowMs();
    if (left <= 0) return ETIMEDOUT;
    WaitWhile(own_done, done, left);
  }
}

}  // namespace

void RequestControlThread(bool may_start) {
  at_rest.store(false);
  const bool runs = CurrentState().control_thread.load() == ThreadState::kRunning;
  // A running thread makes the state file itself.
  if (!runs && !ReportRuns()) MakeStateFile();
  RingBell();
  if (runs || !WorkWaits()) return;
  StartControlThreadLater();
  if (may_start) TryStart();
}

int PrepareControlThread() {
  const timespec moment = WallClock(kPatienceMs);
  if (!Lock(moment)) return EBUSY;
  const int error = closed ? ESRCH : StopUntil(moment) ? 0 : EBUSY;
  pthread_mutex_unlock(&change_lock);
  return error;
}

void StartControlThreadLater() {
  at_rest.store(false);
  ThreadState none = ThreadState::kNone;
  if (CurrentState().control_thread.compare_exchange_strong(none, ThreadState::kPending)) {
    StartThreadAtNextCall();
  }
}

void StartPendingThread() {
  const int saved_errno = errno;
  const int error = OwnsState() ? TryStart() : EBUSY;
  const int64_t end = NowMs() + kSettleMs;
  for (int64_t left = kSettleMs; error == 0 && settled.load() == 0 && left > 0;) {
    WaitWhile(settled, 0, left);
    left = end - NowMs();
  }
  errno = saved_errno;
}

int KeepCommandsAcrossForks(int patience_ms) {
  fork_patience_ms = patience_ms;
  return pthread_atfork(BeforeFork, AfterForkInParent, AfterForkInChild);
}

WithoutControlThread::WithoutControlThread() {
  const int saved_errno = errno;
  held_ = StopAll(kPatienceMs);
  errno = saved_errno;
}

WithoutControlThread::~WithoutControlThread() {
  const int saved_errno = errno;
  if (held_) Unlock();
  errno = saved_errno;
}

bool CloseControlThread(int timeout_ms) {
  const timespec moment = WallClock(timeout_ms);
  if (!OwnsState() || OnControlThread() || !Lock(moment)) return false;
  closed = StopUntil(moment);
  pthread_mutex_unlock(&change_lock);
  return closed;
}

bool IsAtRest() {
  return at_rest.load();
}

int RunCommand(const Command& command, int timeout_ms, PassTracker::From memory) {
  if (OnControlThread()) return EDEADLK;
  if (!Lock(WallClock(timeout_ms))) return ETIMEDOUT;
  const int error = AddAndWait(command, timeout_ms, memory);
  pthread_mutex_unlock(&change_lock);
  return error;
}

void RunCommandHere(const Command& command) {
  // The lock prevents that a signal starts a thread, which would carry out another command at the
  // same time.
  pthread_mutex_lock(&change_lock);
  at_rest.store(false);
  Deliver(command);
  RememberCommand(command);
  Unlock();
}

}  // namespace host
