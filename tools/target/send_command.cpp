// SPDX-License-Identifier: Apache-2.0
// The sending side of the control protocol. On Linux commands go through the state file of the
// process, and the signal only makes it look there: PID namespaces and full signal queues do not
// change or lose a command.
#include "tools/target/send_command.h"

#include <linux/futex.h>
#include <sys/file.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstring>
#include <string>
#include <thread>

#include "protocol/protocol.h"
#include "tools/base/progress.h"
#include "tools/target/control_signal.h"
#include "tools/target/inspect.h"
#include "tools/target/site.h"

namespace memleak {
namespace {

using protocol::ControlThread;
using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds kAnswerPoll(20);
// A thread that runs answers earlier, unless it is busy.
constexpr milliseconds kBellAgain(200);
// How long a process gets to start the thread: until its next call of an allocator function.
constexpr milliseconds kThreadPatience(3000);
constexpr milliseconds kCountPatience(500);
constexpr milliseconds kEmulatedThreadPatience(8000);

template <typename Word>
std::uint32_t* FutexOf(std::atomic<Word>& word) {
  return reinterpret_cast<std::uint32_t*>(&word);  // the low word: machines are little-endian
}

template <typename Word>
void AwaitChange(std::atomic<Word>& word, Word value) {
  timespec wait{};
  wait.tv_nsec = std::chrono::nanoseconds(kAnswerPoll).count();
  syscall(SYS_futex, FutexOf(word), FUTEX_WAIT, static_cast<std::uint32_t>(value), &wait, nullptr,
          0);
}

// Wakes the control thread, or asks the process to start it.
void Wake(const ProcessInfo& process, StateFile& state) {
  ++state->bell;
  syscall(SYS_futex, FutexOf(state->bell), FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
  if (state->control_thread != ControlThread::kRunning) RingBell(process);
}

/// A command in the queue of a process.
class PostedCommand {
 public:
  PostedCommand(const ProcessInfo& process, milliseconds timeout)
      : process_(process), state_(*process.state), timeout_(timeout) {}

  void Post(protocol::Recipient recipient, std::uint64_t word, std::uint32_t parameter) {
    const Lock lock(*this);
    // Room for the command appears when the process carries out the oldest one.
    AwaitDone(state_->sent - protocol::kMaxPosted + 1);
    const std::uint64_t before = state_->sent;
    protocol::PostedCommand& posted = state_->posted[before % protocol::kMaxPosted];
    posted.recipient = recipient;
    posted.word = word;
    posted.parameter = parameter;
    posted.error = 0;
    state_->sent = number_ = before + 1;
  }

  // Waits until the command is carried out.
  void Await() {
    Wake(process_, state_);
    AwaitDone(number_);
    const int error = state_->posted[(number_ - 1) % protocol::kMaxPosted].error;
    if (error == 0) return;
    throw UserError(
        "process " + process_.Label() +
            " cannot start the thread that carries out commands: " + std::strerror(error),
        "raise its limits (ulimit -u, ulimit -v), then try again");
  }

  microseconds Waited() const {
    return std::chrono::duration_cast<microseconds>(steady_clock::now() - start_);
  }

 private:
  // The lock of the queue. Another controller holds it briefly, or while the queue is full.
  class Lock {
   public:
    explicit Lock(PostedCommand& command) : file_(command.state_.Number()) {
      while (flock(file_, LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK && errno != EINTR) {
          throw UserError(std::string("cannot lock the state file: ") + std::strerror(errno),
                          "move the root directory to a file system with locks");
        }
        command.CheckPatience();
        std::this_thread::sleep_for(kAnswerPoll);
      }
    }
    ~Lock() { flock(file_, LOCK_UN); }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

   private:
    int file_;
  };

  // Waits until the process has carried out `number` commands. The difference is signed: a new
  // process has carried out none, and there is nothing to wait for.
  void AwaitDone(std::uint64_t number) {
    StatusLine line;
    while (true) {
      const std::uint64_t done = state_->done;
      if (static_cast<std::int64_t>(done - number) >= 0) return;
      CheckPatience();
      if (Waited() >= kBellAgain && !rang_again_) {
        RingBell(process_);
        rang_again_ = true;
      }
      if (Waited() >= kBellAgain) {
        line.Show("waiting for " + process_.Label() + "  " + FormatDuration(Waited()));
      }
      AwaitChange(state_->done, done);
    }
  }

  void CheckPatience() const {
    RequireRunning(process_);
    const std::string pid = std::to_string(process_.pid);
    const std::string queued =
        number_ == 0 ? "its queue is full, so nothing was sent" : "the command stays queued";
    const milliseconds patience = process_.is_emulated ? kEmulatedThreadPatience : kThreadPatience;
    const ControlThread thread = state_->control_thread;
    if (thread != ControlThread::kRunning && Waited() >= patience) {
      throw UserError(
          "process " + process_.Label() + " has not called an allocator function since; " + queued,
          "commands are carried out with its next call: see memleak status " + pid);
    }
    if (timeout_.count() != 0 && Waited() >= timeout_) {
      const bool reports = state_->reports_started != state_->reports_ended;
      throw UserError("process " + process_.Label() + " has not carried out the command in " +
                          std::to_string(timeout_.count() / 1000) + " s; " + queued + "; " +
                          (reports ? "an earlier report is still being written"
                                   : "a thread of the process may be stuck"),
                      reports ? "wait for its end: see memleak status " + pid
                              : "see where: gdb -p " + pid + " --batch -ex 'thread apply all bt'");
    }
  }

  const ProcessInfo& process_;
  StateFile& state_;
  milliseconds timeout_;
  steady_clock::time_point start_ = steady_clock::now();
  std::uint64_t number_ = 0;
  bool rang_again_ = false;
};

}  // namespace

Carried SendCommand(const ProcessInfo& process, std::uint64_t word, std::uint32_t parameter,
                    milliseconds timeout) {
  if (!process.state) {
    QueueCommand(process, word, parameter);
    return std::nullopt;
  }
  PostedCommand command(process, timeout);
  command.Post(protocol::Recipient::kTracker, word, parameter);
  command.Await();
  return command.Waited();
}

Carried DetachFrom(const ProcessInfo& process) {
  PostedCommand command(process, kCommandPatience);
  command.Post(protocol::Recipient::kDetach, 0, 0);
  command.Await();
  return command.Waited();
}

bool CountRecords(const ProcessInfo& process) {
  StateFile& state = *process.state;
  const auto start = steady_clock::now();
  auto ring = start + kBellAgain;
  const std::uint32_t wanted = ++state->counts_wanted;
  Wake(process, state);
  while (true) {
    const std::uint32_t done = state->counts_done;
    if (static_cast<std::int32_t>(done - wanted) >= 0) return true;
    const auto now = steady_clock::now();
    if (now >= start + kCountPatience) return false;
    if (now >= ring && state->control_thread != ControlThread::kRunning) {
      RingBell(process);
      ring += kBellAgain;
    }
    AwaitChange(state->counts_done, done);
  }
}

std::string CarriedText(const Carried& carried) {
  return std::string(" (") + (carried ? FormatDuration(*carried) : Advice().unseen) + ")";
}

std::string FormatDuration(microseconds duration) {
  const auto count = duration.count();
  const auto tenths = [](auto value) {
    return std::to_string(value / 10) + "." + std::to_string(value % 10);
  };
  if (count >= 1'000'000) return tenths(count / 100'000) + " s";
  if (count >= 10'000) return std::to_string(count / 1000) + " ms";
  return tenths(count / 100) + " ms";
}

}  // namespace memleak
