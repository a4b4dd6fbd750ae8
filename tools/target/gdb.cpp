// SPDX-License-Identifier: Apache-2.0
// gdb, by commands on its standard input.
#include <elf.h>
#include <signal.h>
#include <sys/syscall.h>

#include <array>
#include <cstdint>
#include <fstream>
#include <string>

#include "tools/base/user_error.h"
#include "tools/target/debugger_commands.h"

namespace memleak {
namespace {

constexpr std::uint64_t Bit(int signal) {
  return std::uint64_t{1} << (signal - 1);
}
// All signals, except those that an instruction raises, and the one by which the C library changes
// the user of all threads.
constexpr int kSetUser = 33;  // SIGSETXID of glibc
constexpr std::uint64_t kBlocked = ~(Bit(SIGILL) | Bit(SIGTRAP) | Bit(SIGBUS) | Bit(SIGFPE) |
                                     Bit(SIGSEGV) | Bit(SIGSYS) | Bit(kSetUser));
// The debugger's data on the stack of the thread: kBlocked, the former mask, and signals.
constexpr std::uint64_t kDataBytes = 16 + 64 * std::uint64_t{128};

// Commands for gdb. $thread makes the call, $entry is where functions return to, $data is the
// stack pointer and the start of the data.
constexpr const char* kGdbCommands =
    // SIGINT is not among "all". SIGTRAP always stops the process, and is never passed on.
    R"(
define pass_signals
handle all nostop noprint pass
handle SIGINT nostop noprint pass
set scheduler-locking off
end
define stop_at_signals
handle all stop print pass
handle SIGINT stop print pass
set scheduler-locking on
end
)"
    // After a change of a register gdb may select another frame.
    R"(
define set_register
select-frame 0
set $arg0 = $arg1
end
)"
#ifdef __aarch64__
    R"(
define begin_call
set_register $x0 $arg1
set_register $x1 $arg2
set_register $x2 $arg3
set_register $x3 $arg4
set_register $x4 $arg5
set_register $x30 $entry
set_register $sp $data
set_register $pc $arg0
end
define read_result
set $result = $x0
end
)"
#else
    R"(
define begin_call
set {long}($data-8) = $entry
set_register $rdi $arg1
set_register $rsi $arg2
set_register $rdx $arg3
set_register $rcx $arg4
set_register $r8 $arg5
set_register $orig_rax -1
set_register $rsp $data-8
set_register $pc $arg0
end
define read_result
set $result = $rax
end
)"
#endif
    // Continues until the thread has returned (1) or has a signal (2), or the process has executed
    // another program (3).
    R"(
define await_return
set $state = 0
while $state == 0
continue
if $executed
set $state = 3
else
if $_thread == $thread
set $state = 2
end
thread $thread
if (long)$pc == $entry
set $state = 1
end
end
end
end
define call_system
begin_call $syscall $arg0 $arg1 $arg2 $arg3 $arg4
await_return
end
)"
    // Signals may arrive before they are blocked. They are sent again, as they were: a thread may
    // send itself any signal. If there are more than 64, the thread handles the others now.
    R"(
define keep_signals
set $kept = 0
while $state == 2 && $kept < 64
set $signal = $_siginfo.si_signo
if $blocked >> ($signal - 1) & 1
set $at = $data+16+128*$kept
set {int}$at = $signal
set {int}($at+4) = $_siginfo.si_errno
set {int}($at+8) = $_siginfo.si_code
set {int[28]}($at+16) = $_siginfo._sifields._pad
set $kept = $kept + 1
queue-signal 0
end
await_return
end
if $state == 2
pass_signals
await_return
end
set $interrupted = $state == 2
end
define return_signals
if $kept > 0 && $state == 1
call_system $get_process 0 0 0 0
read_result
set $process = $result
call_system $get_thread 0 0 0 0
read_result
set $receiver = $result
while $kept > 0
set $kept = $kept - 1
set $at = $data+16+128*$kept
call_system $send $process $receiver {int}$at $at
end
end
end
)";

std::uint64_t EntryPoint(pid_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/auxv", std::ios::binary);
  std::array<std::uint64_t, 2> entry{};
  while (file.read(reinterpret_cast<char*>(entry.data()), sizeof entry)) {
    if (entry[0] == AT_ENTRY) return entry[1];
  }
  throw UserError("cannot read /proc/" + std::to_string(pid) + "/auxv",
                  "check whether the process still runs");
}

class Gdb : public Debugger {
 public:
  Gdb(const std::string& path, pid_t pid);

 private:
  Lines AttachCommands(pid_t pid) const override;
  Lines ReadThreads() override;
  Lines RunToCommands(std::uint64_t address) const override;
  Lines SetResult(unsigned thread, int error) const override;
  Lines CallCommands(const FunctionCall& call) const override;

  std::uint64_t entry_;
};

// --readnever: only names of functions are read, no debug information.
Gdb::Gdb(const std::string& path, pid_t pid)
    : Debugger(pid, {path, "-nx", "-q", "--readnever", "-iex", "set auto-load off"},
               R"(echo @@\n)"),
      entry_(EntryPoint(pid)) {
  Run({"set prompt", "set confirm off", "set pagination off", "set width 0", "set height 0",
       "set language c", "set breakpoint pending off", "set non-stop off",
       "set scheduler-locking off", "set exec-file-mismatch off",
       // Without the libraries' files gdb reads no symbols while the process is stopped, and sets
       // no breakpoints in the dynamic linker.
       "set sysroot /nonexistent", "set auto-solib-add off", "set libthread-db-search-path",
       kGdbCommands, "pass_signals", "set $entry = " + std::to_string(entry_),
       "set $blocked = " + std::to_string(kBlocked) + "UL",
       "file /proc/" + std::to_string(pid) + "/exe"},
      kStartTimeout);
}

Gdb::Lines Gdb::AttachCommands(pid_t pid) const {
  return {"attach " + std::to_string(pid)};
}

Gdb::Lines Gdb::ReadThreads() {
  std::string format = "@T %d";
  std::string values = ", $_thread";
  for (const std::string& name : RegisterNames()) {
    format += " %ld";
    values += ", (long)$" + name;
  }
#ifdef __x86_64__
  values += ", $orig_rax";
#else
  values += ", -1";
#endif
  return Run({"thread apply all -q printf \"" + format + " %ld\\n\"" + values}, kReplyTimeout);
}

Gdb::Lines Gdb::RunToCommands(std::uint64_t address) const {
  return {"tbreak *" + std::to_string(address), "continue", "delete"};
}

Gdb::Lines Gdb::SetResult(unsigned thread, int error) const {
  return {"thread apply " + std::to_string(thread) + " -q set $" + RegisterNames().front() + " = " +
          std::to_string(error)};
}

// gdb has calls of its own, but gdb 13 cannot write the vector registers of processors with large
// ones, and then leaves the thread with wrong registers. Vector registers do not survive calls of
// functions, and so neither a system call, which is in a function of the C library: the general
// registers suffice. The function returns to the entry point of the program, which is not used any
// more.
//
// The signals of the thread are blocked during the call: a handler might jump out of it, and would
// end the system call of the thread unseen. When the former mask is set, the thread stops at the
// first signal that has arrived, and gets its registers back. Then the kernel delivers the signal
// as if it had interrupted the system call.
Gdb::Lines Gdb::CallCommands(const FunctionCall& call) const {
  const auto assign = [](const char* name, std::uint64_t value) {
    return std::string("set $") + name + " = " + std::to_string(static_cast<std::int64_t>(value));
  };
  const std::string mask = "call_system " + std::to_string(SYS_rt_sigprocmask) + " ";
  const std::string no_arguments = " 0 0 0 0 0";
  std::string begin = "begin_call " + std::to_string(call.function);
  for (const std::uint64_t argument : call.arguments) begin += " " + std::to_string(argument);
  begin += no_arguments.substr(0, 2 * (5 - call.arguments.size()));
  Lines lines = {"define restore_registers"};
  for (std::size_t i = 0; i < call.thread.registers.size(); ++i) {
    lines.push_back("set_register $" + RegisterNames()[i] + " " +
                    std::to_string(static_cast<std::int64_t>(call.thread.registers[i])));
  }
#ifdef __x86_64__
  lines.push_back("set_register $orig_rax " + std::to_string(call.thread.system_call));
#endif
  // One command for all that follows: if this program is killed, gdb reads no further command. It
  // completes the current one and detaches.
  lines.insert(
      lines.end(),
      {"end", assign("thread", call.thread.number), assign("data", call.stack - kDataBytes),
       assign("syscall", call.syscall), assign("get_process", SYS_getpid),
       assign("get_thread", SYS_gettid), assign("send", SYS_rt_tgsigqueueinfo), assign("state", 0),
       assign("interrupted", 0), assign("executed", 0), assign("called", 0), "if 1",
       "thread $thread", "break *$entry", "catch exec if ($executed = 1)",
       "set {long}$data = $blocked",
       // Blocks signals.
       "stop_at_signals", mask + std::to_string(SIG_BLOCK) + " $data $data+8 8", "keep_signals",
       "pass_signals", "return_signals",
       // Other stops do not end the call: a SIGTRAP may have been on its way.
       "if $state == 1", begin, "await_return", "while $state == 2", "await_return", "end",
       "set $called = $state == 1", "end",
       // Sets the former mask. A call that fails leaves its reason as the last output.
       "if $called", "read_result", "printf \"$0 = %ld\\n\", $result", "stop_at_signals",
       mask + std::to_string(SIG_SETMASK) + " $data+8 0 8", "set $interrupted = $state == 2",
       "pass_signals", "end",
       // After an exec, neither the call nor the registers mean anything.
       "if $state == 1 || $state == 2", "restore_registers", "end", "if $interrupted",
       std::string("echo ") + kInterrupted + "\\n", "end", "end", "delete",
       // An error has ended the command before the thread ran.
       "if $state == 0 && !$executed && (long)$pc == $syscall", "restore_registers", "end"});
  return lines;
}

}  // namespace

std::unique_ptr<Debugger> StartGdb(const std::string& path, pid_t pid) {
  return std::make_unique<Gdb>(path, pid);
}

}  // namespace memleak
