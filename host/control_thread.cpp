// Fetches commands and hands them to the tracker's signal handler; see the header.
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

#include "host/say.h"

namespace host {
namespace {

constexpr int kControlSignal = 44;
// Where the words lie in the siginfo record, which the kernel carries unchanged for SI_QUEUE.
constexpr size_t kWordOffset = 16;
constexpr size_t kParameterOffset = 24;

// The handler clears tables and starts threads; reports have a thread and a stack of their own.
constexpr size_t kStackBytes = size_t{256} << 10;

// Held by whoever starts or stops the thread or waits for a command, and by a thread that forks
// from before the fork until both sides have their control threads.
pthread_mutex_t change_lock = PTHREAD_MUTEX_INITIALIZER;
// Under change_lock: the thread, whether it is there to be joined, and whether it should be.
pthread_t thread;
bool thread_started = false;
bool thread_wanted = false;

// Written by the thread itself: its id, 0 before it runs.
std::atomic<int> thread_id{0};
enum Stop : int { kRun, kStopWanted, kStopped };
std::atomic<int> stop{kRun};
// 1 while RunCommand waits for the command with these words. Atomic for a command carried out just
// when its sender has lost patience and the next one writes its own.
std::atomic<int> own_pending{0};
std::atomic<uint64_t> own_word{0};
std::atomic<uint32_t> own_parameter{0};
bool blocked_at_start = false;
// Id of the thread whose fork holds change_lock, 0 for none. Of two that fork at once, one may have
// gone on without it.
std::atomic<int> forking_thread{0};
int fork_patience_ms = 0;  // set before the fork handlers are there

int ThreadId() {
  return static_cast<int>(syscall(SYS_gettid));
}

int64_t NowMs() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

/// The moment `timeout_ms` from now, as pthread_mutex_timedlock and pthread_timedjoin_np want it.
timespec WallClock(int timeout_ms) {
  timespec moment;
  clock_gettime(CLOCK_REALTIME, &moment);
  moment.tv_sec += timeout_ms / 1000;
  moment.tv_nsec += timeout_ms % 1000 * 1'000'000L;
  if (moment.tv_nsec >= 1'000'000'000) ++moment.tv_sec, moment.tv_nsec -= 1'000'000'000;
  return moment;
}

/// Waits while `word` is `value`. False when the deadline (NowMs) has passed.
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
  sigaddset(&set, kControlSignal);
  return set;
}

/// All signals but those that the thread's own faults raise: the tracker recovers from some.
/// (The C library keeps its internal ones out of a filled set.)
sigset_t AsynchronousSet() {
  sigset_t set;
  sigfillset(&set);
  constexpr int kFaults[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGTRAP, SIGSYS, SIGABRT};
  for (const int fault : kFaults) {
    sigdelset(&set, fault);
  }
  return set;
}

/// Whether any command has been carried out here; a forked child starts anew.
std::atomic<bool> carried_out{false};

/// Calls whatever handler the control signal has now, as the kernel would.
void Deliver(siginfo_t& info) {
  struct sigaction action;
  if (sigaction(kControlSignal, nullptr, &action) != 0) return;
  if ((action.sa_flags & SA_SIGINFO) != 0) {
    ucontext_t context;
    getcontext(&context);
    action.sa_sigaction(kControlSignal, &info, &context);
  } else if (action.sa_handler != SIG_DFL && action.sa_handler != SIG_IGN) {
    action.sa_handler(kControlSignal);
  }
}

/// Whether `info` is the command that RunCommand waits for, or one to the same effect.
bool IsOwnCommand(const siginfo_t& info) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(&info);
  Command command;
  memcpy(&command.word, bytes + kWordOffset, sizeof command.word);
  memcpy(&command.parameter, bytes + kParameterOffset, sizeof command.parameter);
  return command.word == own_word.load() && command.parameter == own_parameter.load();
}

/// The thread fetches commands rather than opening the signal and letting them interrupt it: it
/// sees which command it carries out, and with the signal blocked a missing handler kills nobody.
void* ControlThread(void*) {
  prctl(PR_SET_NAME, "memleak-control", 0, 0, 0);
  StoreAndWake(thread_id, ThreadId());
  const sigset_t commands = ControlSet();
  for (;;) {
    int wanted = kStopWanted;
    if (stop.compare_exchange_strong(wanted, kStopped)) return nullptr;
    siginfo_t info;
    // Fails with EINTR when the C library makes all threads change their user id.
    if (sigwaitinfo(&commands, &info) != kControlSignal) continue;
    // From pthread_kill in StopUntil: carries no words, just ends the wait.
    if (info.si_code != SI_QUEUE && info.si_pid == getpid()) continue;
    Deliver(info);
    carried_out.store(true);
    if (own_pending.load() == 1 && IsOwnCommand(info)) StoreAndWake(own_pending, 0);
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
  // The program's thread-local storage, which lies in the stack, may be larger than that.
  if (error == EINVAL) error = pthread_create(&thread, nullptr, ControlThread, nullptr);
  thread_started = error == 0;
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return error;
}

bool StopUntil(const timespec& moment) {
  if (!thread_started) return true;
  stop.store(kStopWanted);
  pthread_kill(thread, kControlSignal);
  // A join is a point of cancellation; fork and exit are none.
  int cancel_state;
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancel_state);
  int error = pthread_timedjoin_np(thread, nullptr, &moment);
  int wanted = kStopWanted;
  // Too late, unless it has just made up its mind.
  if (error != 0 && !stop.compare_exchange_strong(wanted, kRun)) {
    error = pthread_join(thread, nullptr);
  }
  pthread_setcancelstate(cancel_state, nullptr);
  if (error != 0) return false;
  thread_started = false;
  // The kernel may give the number to the next thread.
  thread_id.store(0);
  return true;
}

/// Nothing of a command half done gets into the child this way; and an emulated child can start
/// threads only where its parent had none (qemu 7.2 loses count of them in a fork).
void BeforeFork() {
  const timespec moment = WallClock(fork_patience_ms);
  if (OnControlThread() || pthread_mutex_timedlock(&change_lock, &moment) != 0) return;
  forking_thread.store(ThreadId());
  StopUntil(moment);
}

void StartAfterFork() {
  if (!thread_wanted) return;
  const int error = Start();
  if (error != 0) Say("cannot start the control thread after a fork: %s", strerror(error));
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
  carried_out.store(false);
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
  siginfo_t info{};
  info.si_signo = kControlSignal;
  info.si_code = SI_QUEUE;
  auto* bytes = reinterpret_cast<unsigned char*>(&info);
  memcpy(bytes + kWordOffset, &command.word, sizeof command.word);
  memcpy(bytes + kParameterOffset, &command.parameter, sizeof command.parameter);
  int error = 0;
  if (syscall(SYS_rt_tgsigqueueinfo, getpid(), thread_id.load(), kControlSignal, &info) != 0) {
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
  blocked_at_start = sigismember(&before, kControlSignal) == 1;
}

void RestoreControlSignal() {
  if (blocked_at_start) return;
  const sigset_t set = ControlSet();
  pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

void CatchLateCommands() {
  struct sigaction action;
  if (sigaction(kControlSignal, nullptr, &action) != 0 || action.sa_handler != SIG_DFL) return;
  action = {};
  action.sa_handler = DropLateCommand;
  action.sa_flags = SA_RESTART;
  sigaction(kControlSignal, &action, nullptr);
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

bool CommandsWereCarriedOut() {
  return carried_out.load();
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
