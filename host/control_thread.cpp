// SPDX-License-Identifier: Apache-2.0
// The control thread: fetches commands and passes them to the tracker's signal handler.
#include "host/control_thread.h"

#include <errno.h>
#include <linux/futex.h>
#include <pthread.h>
#include <signal.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <time.h>
#include <ucontext.h>
#include <unistd.h>

#include <atomic>

#include "host/clock.h"
#include "host/print_error.h"
#include "host/report_thread.h"
#include "protocol/kinds.h"

namespace host {
namespace {

using protocol::control_signal;

constexpr char kThreadName[] = "memleak-control";
// How often the thread checks whether a report has ended. Most take some milliseconds.
constexpr int kPollMs = 2;
// How long a fork waits for a report that makes progress. After that the fork proceeds, and the
// child frees the locks of the record store.
constexpr int kForkReportMs = 3000;

// Enough for the handler. Reports have a thread of their own.
constexpr size_t kStackBytes = size_t{256} << 10;

// Held to start or stop the thread or to wait for a command. A thread that forks holds it until
// both processes have their control threads.
pthread_mutex_t change_lock = PTHREAD_MUTEX_INITIALIZER;
// Guarded by change_lock: the thread, whether it can be joined, and whether it should run.
pthread_t thread;
bool thread_started = false;
bool thread_wanted = false;

// Written by the thread itself: its id, 0 before it runs.
std::atomic<int> thread_id{0};
enum Stop : int { kRun, kStopWanted, kStopped };
std::atomic<int> stop{kRun};
// 1 while RunCommand waits for the command with these words. Atomic: a command may be carried out
// after its sender has timed out, while the next one stores its own.
std::atomic<int> own_pending{0};
std::atomic<uint64_t> own_word{0};
std::atomic<uint32_t> own_parameter{0};

struct Fetched {
  siginfo_t info;
  Command command;
};
// Commands that were fetched and are not carried out yet, in order of arrival. A second one is
// fetched only while the first waits for a report to end. Kept while the thread is stopped.
Fetched fetched[2];
int fetched_count = 0;
std::atomic<bool> report_waits{false};

bool blocked_at_start = false;
// Id of the thread whose fork holds change_lock, 0 for none. Another fork may have timed out and
// proceeded without the lock.
std::atomic<int> forking_thread{0};
int fork_patience_ms = 0;  // set before the fork handlers are registered

int ThreadId() {
  return static_cast<int>(syscall(SYS_gettid));
}

/// Returns the time `timeout_ms` from now, for pthread_mutex_timedlock and pthread_timedjoin_np.
timespec WallClock(int timeout_ms) {
  timespec moment;
  clock_gettime(CLOCK_REALTIME, &moment);
  moment.tv_sec += timeout_ms / 1000;
  moment.tv_nsec += timeout_ms % 1000 * 1'000'000L;
  if (moment.tv_nsec >= 1'000'000'000) ++moment.tv_sec, moment.tv_nsec -= 1'000'000'000;
  return moment;
}

/// Waits while `word` is `value`. Returns false once `deadline` (of NowMs) has passed.
bool WaitWhile(std::atomic<int>& word, int value, int64_t deadline) {
  while (word.load() == value) {
    const int64_t ms = deadline - NowMs();
    if (ms <= 0) return false;
    const timespec left{static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000 * 1'000'000)};
    syscall(SYS_futex, &word, FUTEX_WAIT_PRIVATE, value, &left);
  }
  return true;
}

void StoreAndWake(std::atomic<int>& word, int value) {
  word.store(value);
  syscall(SYS_futex, &word, FUTEX_WAKE_PRIVATE, 0x7fffffff);
}

bool OnControlThread() {
  return thread_id.load() == ThreadId();
}

sigset_t ControlSet() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, control_signal);
  return set;
}

/// Returns all signals except those that faults of this thread raise: the tracker recovers from
/// some faults. (The C library excludes its internal signals from a filled set.)
sigset_t AsynchronousSet() {
  sigset_t set;
  sigfillset(&set);
  constexpr int kFaults[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGTRAP, SIGSYS, SIGABRT};
  for (const int fault : kFaults) {
    sigdelset(&set, fault);
  }
  return set;
}

/// Calls the current handler of the control signal, as the kernel would.
void Deliver(siginfo_t& info) {
  struct sigaction action;
  if (sigaction(control_signal, nullptr, &action) != 0) return;
  if ((action.sa_flags & SA_SIGINFO) != 0) {
    ucontext_t context;
    getcontext(&context);
    action.sa_sigaction(control_signal, &info, &context);
  } else if (action.sa_handler != SIG_DFL && action.sa_handler != SIG_IGN) {
    action.sa_handler(control_signal);
  }
}

/// Waits for a command, at most for the time `limit` (null: without limit), and appends it to the
/// fetched commands. May return without a command.
void Fetch(const timespec* limit) {
  const sigset_t commands = ControlSet();
  Fetched& next = fetched[fetched_count];
  // Fails with EINTR when the C library changes the user id of all threads.
  if (sigtimedwait(&commands, &next.info, limit) != control_signal) return;
  // From pthread_kill in StopUntil: only ends the wait.
  if (next.info.si_code != SI_QUEUE && next.info.si_pid == getpid()) return;
  next.command = protocol::ReadCommand(next.info);
  // One report answers identical commands.
  const bool is_repeated = fetched_count == 1 && next.command == fetched[0].command;
  if (!is_repeated) ++fetched_count;
}

/// Carries out the first of the fetched commands.
void CarryOut() {
  const Command command = fetched[0].command;
  if ((command.word & protocol::kReportBits) != 0) {
    StartReport([](void* info) { Deliver(*static_cast<siginfo_t*>(info)); }, &fetched[0].info,
                kThreadName);
    report_waits.store(false);
  } else {
    Deliver(fetched[0].info);
  }
  fetched[0] = fetched[1];
  --fetched_count;
  // RunCommand waits for this command or for an identical one.
  if (own_pending.load() == 1 && command == Command{own_word.load(), own_parameter.load()}) {
    StoreAndWake(own_pending, 0);
  }
}

/// Whether the first fetched command asks for a report while another report is being written. The
/// tracker would start a thread for each at once.
bool FirstMustWait() {
  if ((fetched[0].command.word & protocol::kReportBits) == 0) return false;
  if (CurrentReport() != Report::kRunning) return false;
  report_waits.store(true);
  return true;
}

/// Fetches commands instead of unblocking the signal. So the thread knows which command it carries
/// out, and a missing handler does not kill the process.
void* ControlThread(void*) {
  prctl(PR_SET_NAME, kThreadName, 0, 0, 0);
  StoreAndWake(thread_id, ThreadId());
  for (;;) {
    int wanted = kStopWanted;
    if (stop.compare_exchange_strong(wanted, kStopped)) return nullptr;
    if (fetched_count == 0) {
      Fetch(nullptr);
    } else if (!FirstMustWait()) {
      CarryOut();
    } else if (fetched_count == 1) {
      constexpr timespec kPollInterval{0, kPollMs * 1'000'000L};
      Fetch(&kPollInterval);
    } else {
      WaitWhile(stop, kRun, NowMs() + kPollMs);
    }
  }
}

int Start() {
  const sigset_t blocked = AsynchronousSet();
  sigset_t before;
  pthread_sigmask(SIG_BLOCK, &blocked, &before);
  thread_id.store(0);
  stop.store(kRun);
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setstacksize(&attributes, kStackBytes);
  int error = pthread_create(&thread, &attributes, ControlThread, nullptr);
  pthread_attr_destroy(&attributes);
  // The program's thread-local storage is part of the stack and may be larger.
  if (error == EINVAL) error = pthread_create(&thread, nullptr, ControlThread, nullptr);
  thread_started = error == 0;
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return error;
}

bool StopUntil(const timespec& moment) {
  if (!thread_started) return true;
  StoreAndWake(stop, kStopWanted);
  pthread_kill(thread, control_signal);
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
  // The kernel may reuse the id.
  thread_id.store(0);
  return true;
}

/// Stops the control thread before a fork, so that the child never sees an unfinished command.
/// Also, an emulated child can start threads only if its parent had no others (qemu 7.2 miscounts
/// them in a fork), and a report holds locks of the tracker and of the allocator, which would stay
/// locked in the child.
void BeforeFork() {
  const timespec moment = WallClock(fork_patience_ms);
  if (OnControlThread() || pthread_mutex_timedlock(&change_lock, &moment) != 0) return;
  forking_thread.store(ThreadId());
  const bool stopped = StopUntil(moment);
  const bool reported = WaitWhileReportRuns(kForkReportMs);
  // The thread's command may have waited for the report, as a clear does.
  if (!stopped && reported) StopUntil(WallClock(fork_patience_ms));
}

void StartAfterFork() {
  if (!thread_wanted) return;
  const int error = Start();
  if (error != 0) PrintError("cannot start the control thread after a fork: %s", strerror(error));
}

void AfterForkInParent() {
  if (forking_thread.load() != ThreadId()) return;
  forking_thread.store(0);
  if (!thread_started) StartAfterFork();
  pthread_mutex_unlock(&change_lock);
}

void AfterForkInChild() {
  forking_thread.store(0);
  own_pending.store(0);
  fetched_count = 0;  // the parent carries them out
  report_waits.store(false);
  ForgetReport();
  pthread_mutex_init(&change_lock, nullptr);
  StartAfterFork();
}

/// RunCommand under change_lock.
int SendAndWait(const Command& command, int64_t deadline) {
  if (!thread_started) return ESRCH;
  if (!WaitWhile(thread_id, 0, deadline)) return ETIMEDOUT;
  own_word.store(command.word);
  own_parameter.store(command.parameter);
  own_pending.store(1);
  siginfo_t info = protocol::MakeRecord(control_signal, command);
  int error = 0;
  if (syscall(SYS_rt_tgsigqueueinfo, getpid(), thread_id.load(), control_signal, &info) != 0) {
    error = errno;
  } else if (!WaitWhile(own_pending, 1, deadline)) {
    error = ETIMEDOUT;
  }
  own_pending.store(0);
  return error;
}

void DropLateCommand(int) {}

}  // namespace

void BlockControlSignal() {
  const sigset_t set = ControlSet();
  sigset_t before;
  pthread_sigmask(SIG_BLOCK, &set, &before);
  blocked_at_start = sigismember(&before, control_signal) == 1;
}

void RestoreControlSignal() {
  if (blocked_at_start) return;
  const sigset_t set = ControlSet();
  pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

void CatchLateCommands() {
  struct sigaction action;
  if (sigaction(control_signal, nullptr, &action) != 0 || action.sa_handler != SIG_DFL) return;
  action = {};
  action.sa_handler = DropLateCommand;
  action.sa_flags = SA_RESTART;
  sigaction(control_signal, &action, nullptr);
}

int StartControlThread() {
  pthread_mutex_lock(&change_lock);
  thread_wanted = true;
  const int error = Start();
  pthread_mutex_unlock(&change_lock);
  return error;
}

bool StopControlThread(int timeout_ms) {
  const timespec moment = WallClock(timeout_ms);
  if (OnControlThread() || pthread_mutex_timedlock(&change_lock, &moment) != 0) return false;
  const bool stopped = StopUntil(moment);
  thread_wanted = !stopped;
  pthread_mutex_unlock(&change_lock);
  return stopped;
}

int KeepControlThreadAcrossForks(int patience_ms) {
  fork_patience_ms = patience_ms;
  return pthread_atfork(BeforeFork, AfterForkInParent, AfterForkInChild);
}

bool ReportCommandWaits() {
  return report_waits.load();
}

int RunCommand(const Command& command, int timeout_ms) {
  const int64_t deadline = NowMs() + timeout_ms;
  const timespec moment = WallClock(timeout_ms);
  if (OnControlThread()) return EDEADLK;
  if (pthread_mutex_timedlock(&change_lock, &moment) != 0) return ETIMEDOUT;
  const int error = SendAndWait(command, deadline);
  pthread_mutex_unlock(&change_lock);
  return error;
}

}  // namespace host
