// SPDX-License-Identifier: Apache-2.0
// Controls a debugger through its command line. A line that ends with kEnd ends the output of
// commands that were sent together.
#include "tools/target/debugger.h"

#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <thread>

#include "tools/base/files.h"
#include "tools/base/names.h"
#include "tools/base/user_error.h"
#include "tools/target/task_status.h"

namespace memleak {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr std::string_view kEnd = "@@";
// dlopen reads two files, and a process on a busy machine may get little time.
constexpr milliseconds kCallTimeout(60'000);
// A thread in an uninterruptible system call does not stop. Until this time the others wait for it.
constexpr milliseconds kStopTimeout(800);
// How long a debugger gets to stop the process, and to end.
constexpr milliseconds kEndTimeout(3'000);

#ifdef __aarch64__
constexpr std::size_t kStackPointer = 31;
constexpr std::size_t kProgramCounter = 32;
#else
constexpr std::size_t kStackPointer = 7;
constexpr std::size_t kProgramCounter = 16;
#endif

constexpr int kRestartNoHandler = 514;  // ERESTARTNOHAND of Linux, which no header has

// Whether a system call of this number ends with EINTR when its thread was stopped, although no
// signal handler has run: see signal(7).
bool IsInterruptedByStops([[maybe_unused]] std::int64_t call) {
#ifdef __x86_64__
  // epoll_wait, epoll_pwait, epoll_pwait2, semop, semtimedop, rt_sigtimedwait, io_getevents,
  // io_pgetevents; with a timeout of the socket also read, recvfrom, recvmsg, accept and accept4.
  for (const int other : {232, 281, 441, 65, 220, 128, 208, 333, 0, 45, 47, 43, 288}) {
    if (call == other) return true;
  }
#endif
  // On aarch64 the kernel decides before the thread stops, and the first argument is lost.
  return false;
}

// The environment without settings that change output or ask servers for debug files.
std::vector<std::string> CleanEnvironment() {
  std::vector<std::string> variables = {"LC_ALL=C", "TERM=dumb"};
  for (char** variable = environ; *variable != nullptr; ++variable) {
    const std::string_view text = *variable;
    if (text.starts_with("LC_ALL=") || text.starts_with("TERM=") ||
        text.starts_with("DEBUGINFOD_URLS=") || text.starts_with("LD_")) {
      continue;
    }
    variables.emplace_back(text);
  }
  return variables;
}

std::vector<char*> Pointers(std::vector<std::string>& words) {
  std::vector<char*> pointers;
  pointers.reserve(words.size() + 1);
  for (std::string& word : words) pointers.push_back(word.data());
  pointers.push_back(nullptr);
  return pointers;
}

}  // namespace

std::uint64_t StoppedThread::StackPointer() const {
  return registers[kStackPointer];
}
std::uint64_t StoppedThread::ProgramCounter() const {
  return registers[kProgramCounter];
}

Debugger::Debugger(pid_t pid, const Lines& command, std::string end_command)
    : target_(pid), program_(ProgramOf(pid)), end_command_(std::move(end_command)) {
  std::array<int, 2> ends{};
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
    throw UserError(std::string("cannot make a socket: ") + std::strerror(errno),
                    "close some files");
  }
  socket_ = ends[0];
  Lines words = command;
  Lines variables = CleanEnvironment();
  posix_spawn_file_actions_t files;
  posix_spawn_file_actions_init(&files);
  for (const int standard : {0, 1, 2}) posix_spawn_file_actions_adddup2(&files, ends[1], standard);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID);
  const int error = posix_spawn(&child_, command.front().c_str(), &files, &attributes,
                                Pointers(words).data(), Pointers(variables).data());
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&files);
  close(ends[1]);
  if (error == 0) return;
  close(socket_);
  throw UserError("cannot start " + command.front() + ": " + std::strerror(error),
                  "check its installation");
}

Debugger::~Debugger() {
  try {
    if (attached_) Detach();
    if (child_ > 0) Run({"quit"}, kEndTimeout);
  } catch (const UserError&) {
    // It has ended, which also detaches.
  }
  End();
}

bool Debugger::Send(const Lines& lines) {
  // All at once: the debugger also gets the last line if this program is killed.
  std::string text;
  for (const std::string& line : lines) text += line + "\n";
  text += end_command_ + "\n";
  output_.clear();
  ++pending_;
  return child_ > 0 &&
         send(socket_, text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size());
}

// Reads the output of all commands that were sent. False: the time is over, or the
// debugger has ended.
bool Debugger::Receive(milliseconds timeout) {
  const auto deadline = steady_clock::now() + timeout;
  while (pending_ > 0) {
    const std::size_t end = buffer_.find('\n');
    if (end != std::string::npos) {
      const std::string line = buffer_.substr(0, end);
      buffer_.erase(0, end + 1);
      if (line.ends_with(kEnd)) {
        --pending_;
      } else {
        output_.push_back(line);
      }
      continue;
    }
    const auto left = std::chrono::duration_cast<milliseconds>(deadline - steady_clock::now());
    pollfd wait{socket_, POLLIN, 0};
    if (left.count() <= 0 || poll(&wait, 1, static_cast<int>(left.count())) <= 0) return false;
    std::array<char, 65536> text{};
    const ssize_t got = read(socket_, text.data(), text.size());
    if (got <= 0) {
      has_ended_ = true;
      return false;
    }
    buffer_.append(text.data(), static_cast<std::size_t>(got));
  }
  return true;
}

Debugger::Lines Debugger::Run(const Lines& lines, milliseconds timeout) {
  if (Send(lines) && Receive(timeout)) return output_;
  GiveUp();
}

// Ends the debugger.
void Debugger::GiveUp() {
  std::string reason = LastOutput();
  for (const std::string& line : output_) {
    if (line.find("internal-error") != std::string::npos) reason = Printable(line);
  }
  const bool cannot_stop = attached_ && !has_ended_ && HasThreadInState(target_, 'D');
  if (cannot_stop) reason = "a thread of the process is in an uninterruptible system call";
  // The debugger would wait while the process is stopped.
  if (child_ > 0 && (cannot_stop || HasExecuted(target_, program_))) kill(child_, SIGKILL);
  failed_ = true;
  End();
  throw UserError((has_ended_ ? "the debugger has ended" : "the debugger does not answer") +
                      (reason.empty() ? "" : ": " + reason),
                  "check whether the process still runs, and try again");
}

// Stops the process after `timeout`. The process gets the signal, not the debugger, which would
// send SIGINT on to it: no debugger hides SIGINT from the program and also stops at it.
bool Debugger::ReceiveOrStop(milliseconds timeout) {
  if (Receive(timeout)) return true;
  if (has_ended_) return false;
  kill(target_, SIGTRAP);
  return Receive(kEndTimeout);
}

std::string Debugger::LastOutput() const {
  for (auto line = output_.rbegin(); line != output_.rend(); ++line) {
    if (!line->empty()) return Printable(*line);
  }
  return "";
}

void Debugger::Attach() {
  attached_ = true;
  if (!Send(AttachCommands(target_))) GiveUp();
  if (Receive(kStopTimeout)) return;
  if (UnstoppableThread(target_) || !Receive(kReplyTimeout)) GiveUp();
}

void Debugger::Detach() {
  Run({"detach"}, kReplyTimeout);
  attached_ = false;
}

std::vector<StoppedThread> Debugger::Threads() {
  constexpr std::string_view kMark = "@T ";
  std::vector<StoppedThread> threads;
  Lines commands;
  for (const std::string& line : ReadThreads()) {
    if (!line.starts_with(kMark)) continue;
    std::istringstream words(line.substr(kMark.size()));
    StoppedThread thread;
    words >> thread.number;
    std::vector<std::int64_t> values;
    for (std::int64_t value = 0; words >> value;) values.push_back(value);
    if (values.size() != kProgramCounter + 2) continue;
    thread.system_call = values.back();
    values.pop_back();
    // The kernel ends the call itself if a handler runs, and repeats it otherwise.
    if (values[0] == -EINTR && IsInterruptedByStops(thread.system_call)) {
      values[0] = -kRestartNoHandler;
      for (std::string& command : SetResult(thread.number, -kRestartNoHandler)) {
        commands.push_back(std::move(command));
      }
    }
    thread.registers.assign(values.begin(), values.end());
    if (thread.number == 1) {
      threads.insert(threads.begin(), std::move(thread));
    } else {
      threads.push_back(std::move(thread));
    }
  }
  if (!commands.empty()) {
    const Lines before = output_;
    Run(commands, kReplyTimeout);
    output_ = before;
  }
  return threads;
}

void Debugger::RunTo(std::uint64_t address, milliseconds timeout) {
  if (Send(RunToCommands(address)) && ReceiveOrStop(timeout)) {
    // The signal may be late. It would kill the process after Detach.
    for (int i = 0; i < 10 && IsPending(target_, SIGTRAP); ++i) Run({"continue"}, kReplyTimeout);
    return;
  }
  if (has_ended_) GiveUp();
  // The breakpoint would end the process.
  Leave("process " + std::to_string(target_) + " cannot be stopped");
}

// Receive for a call, which may take long. gdb hangs after some execs.
bool Debugger::ReceiveResult() {
  constexpr milliseconds kLook(500);
  for (milliseconds waited(0); waited < kCallTimeout; waited += kLook) {
    const bool has_executed = HasExecuted(target_, program_);
    if (Receive(kLook)) return true;
    if (has_ended_ || has_executed) GiveUp();
  }
  return false;
}

CallResult Debugger::Call(const FunctionCall& call) {
  if (!CanCall()) return {std::nullopt, true};
  if (!Send(CallCommands(call))) GiveUp();
  if (!ReceiveResult()) {
    Leave("a call in process " + std::to_string(target_) + " takes more than " +
          std::to_string(kCallTimeout.count() / 1000) + " s");
  }
  CallResult answer;
  for (const std::string& line : output_) {
    const std::size_t result = line.find(" = ", std::min(line.find('$'), line.size()));
    if (result != std::string::npos && !answer.value) {
      answer.value =
          static_cast<std::uint64_t>(std::strtoll(line.c_str() + result + 3, nullptr, 10));
    }
    if (line.ends_with(kInterrupted)) answer.interrupted = true;
  }
  if (answer.value || answer.interrupted) return answer;
  failed_ = true;
  // The reason, without what failed because of it.
  for (const std::string& line : output_) {
    if (line.starts_with("Program ") || line.starts_with("process ") ||
        line.starts_with("[Inferior")) {
      output_ = Lines{line};
      break;
    }
  }
  return answer;
}

// Lets the debugger complete the call, restore the registers, delete its breakpoint and detach,
// which it does at the end of its input. An interrupted call may hold locks of the process forever.
void Debugger::Leave(const std::string& reason) {
  const std::string debugger = std::to_string(child_);
  attached_ = false;
  child_ = -1;
  close(socket_);
  socket_ = -1;
  throw UserError(reason + "; process " + debugger + ", the debugger, waits and then detaches",
                  "do not end that debugger, and try again when it has ended");
}

void Debugger::End() {
  if (child_ <= 0) return;
  failed_ = failed_ || attached_;
  attached_ = false;
  close(socket_);
  socket_ = -1;
  const auto deadline = steady_clock::now() + kEndTimeout;
  while (waitpid(child_, nullptr, WNOHANG) == 0) {
    if (steady_clock::now() >= deadline) {
      kill(child_, SIGKILL);
      waitpid(child_, nullptr, 0);
      break;
    }
    std::this_thread::sleep_for(milliseconds(5));
  }
  child_ = -1;
  if (failed_) Continue();
}

// Continues the process if the debugger has left it stopped, or about to stop: it was ended before
// it saw a stop that it has asked for, or has lost the process by an exec. SIGCONT also removes
// pending stops.
void Debugger::Continue() const {
  for (int look = 0; look < 10; ++look) {
    if (HasThreadInState(target_, 'T') || IsPending(target_, SIGSTOP)) kill(target_, SIGCONT);
    std::this_thread::sleep_for(milliseconds(10));
  }
}

}  // namespace memleak
