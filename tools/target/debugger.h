// SPDX-License-Identifier: Apache-2.0
// A debugger that stops a process and calls functions in it. Single-threaded.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace memleak {

/// A stopped thread.
struct StoppedThread {
  unsigned number = 0;  ///< the debugger's: 1 is the main thread
  /// The processor's general registers in the order of their DWARF numbers; on aarch64 the program
  /// counter follows.
  std::vector<std::uint64_t> registers;
  /// The number of the system call that was interrupted, or negative.
  std::int64_t system_call = -1;

  std::uint64_t StackPointer() const;
  std::uint64_t ProgramCounter() const;
};

/// A call of a function on a thread that is in a system call or at the start of a function.
struct FunctionCall {
  StoppedThread thread;
  std::uint64_t stack = 0;  ///< the stack pointer during the call, a multiple of 16
  std::uint64_t function = 0;
  std::vector<std::uint64_t> arguments;  ///< up to three
  std::uint64_t syscall = 0;             ///< the C library's function syscall
};

struct CallResult {
  std::optional<std::uint64_t>
      value;  ///< nothing: the function was not called, or has not returned
  /// A signal for the thread has arrived: before the call, which was not begun, or during the call.
  /// Detach delivers it. No other call is possible before.
  bool interrupted = false;
};

/// A debugger as a child process that reads commands from a socket. It runs in a session of its
/// own, so that an interrupt from the terminal does not end it in the middle of a call. If this
/// program ends, the debugger completes its commands and detaches.
class Debugger {
 public:
  /// Detaches and ends the debugger.
  virtual ~Debugger();
  Debugger(const Debugger&) = delete;
  Debugger& operator=(const Debugger&) = delete;

  /// Stops the process. Throws UserError if that is not permitted.
  void Attach();
  /// Lets the process run on.
  void Detach();
  /// The threads of the stopped process. Calls that only the stop has interrupted, and that the
  /// kernel would end with EINTR, continue with Detach or Call. Throws UserError.
  std::vector<StoppedThread> Threads();
  /// Lets the stopped process run until a thread reaches the function at `address`, or for
  /// `timeout`, and stops it again by SIGTRAP, which some thread must not block.
  void RunTo(std::uint64_t address, std::chrono::milliseconds timeout);
  /// Calls a function; the other threads run meanwhile. Afterwards the thread has its general
  /// registers back, and all threads stand still. gdb blocks the signals of the thread during the
  /// call. The system call that the thread was in then ends with EINTR, or continues, as without
  /// the call; lldb always lets it continue.
  /// Throws UserError if it takes longer than a minute; then the debugger completes it and
  /// detaches, and only the destructor may be called.
  CallResult Call(const FunctionCall& call);

  /// What the debugger printed last, as one line.
  std::string LastOutput() const;

 protected:
  using Lines = std::vector<std::string>;

  /// Starts the program `command`. `end_command` makes it print a line that ends with "@@".
  Debugger(pid_t pid, const Lines& command, std::string end_command);
  /// Sends `lines` and returns what the debugger prints.
  Lines Run(const Lines& lines, std::chrono::milliseconds timeout);

  /// For commands that are quick, but a thread in an uninterruptible system call does not stop
  /// before its end.
  static constexpr std::chrono::milliseconds kReplyTimeout{10'000};

  virtual Lines AttachCommands(pid_t pid) const = 0;
  /// Prints one line for each thread: "@T NUMBER REGISTER...", in decimal, the last register is the
  /// number of the interrupted system call, negative if there is none.
  virtual Lines ReadThreads() = 0;
  virtual Lines RunToCommands(std::uint64_t address) const = 0;
  virtual Lines SetResult(unsigned thread, int error) const = 0;
  /// Prints "$NUMBER = RESULT", the result in decimal, if the function has returned, and
  /// kInterrupted for CallResult::interrupted.
  virtual Lines CallCommands(const FunctionCall& call) const = 0;
  /// Whether a call now loses no signal.
  virtual bool CanCall() const { return true; }
  static constexpr const char* kInterrupted = "@interrupted";

 private:
  bool Send(const Lines& lines);
  bool Receive(std::chrono::milliseconds timeout);
  bool ReceiveResult();
  bool ReceiveOrStop(std::chrono::milliseconds timeout);
  [[noreturn]] void Leave(const std::string& reason);
  [[noreturn]] void GiveUp();
  void End();
  void Continue() const;

  pid_t target_;
  std::string program_;  // as ProgramOf
  std::string end_command_;
  pid_t child_ = -1;
  int socket_ = -1;
  bool attached_ = false;
  bool has_ended_ = false;
  bool failed_ = false;      // the process may have been left stopped
  std::size_t pending_ = 0;  // times that commands were sent and their output is not complete
  std::string buffer_;
  Lines output_;
};

}  // namespace memleak
