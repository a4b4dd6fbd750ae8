// SPDX-License-Identifier: Apache-2.0
// lldb, by commands on its standard input.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>

#include "tools/base/files.h"
#include "tools/target/debugger_commands.h"
#include "tools/target/task_status.h"

namespace memleak {
namespace {

// The call as a C expression of type long.
std::string CallText(std::uint64_t address, const std::vector<std::uint64_t>& arguments) {
  std::string types;
  std::string values;
  for (const std::uint64_t argument : arguments) {
    types += types.empty() ? "long" : ",long";
    values += (values.empty() ? "" : ",") + std::to_string(argument);
  }
  return "((long(*)(" + types + "))" + std::to_string(address) + ")(" + values + ")";
}

class Lldb : public Debugger {
 public:
  Lldb(const std::string& path, pid_t pid);

 private:
  Lines AttachCommands(pid_t pid) const override;
  Lines ReadThreads() override;
  Lines RunToCommands(std::uint64_t address) const override;
  Lines SetResult(unsigned thread, int error) const override;
  Lines CallCommands(const FunctionCall& call) const override;
  // lldb drops a signal at which the first thread would continue.
  bool CanCall() const override { return !HasDeliverableSignal(pid_); }

  pid_t pid_;
};

Lldb::Lldb(const std::string& path, pid_t pid)
    // lldb repeats what it reads.
    : Debugger(pid, {path, "--no-lldbinit", "--no-use-colors"}, "#@@"), pid_(pid) {
  Run({"settings set auto-confirm true", "settings set stop-disassembly-count 0",
       "settings set stop-line-count-after 0", "settings set stop-line-count-before 0",
       "settings set target.preload-symbols false",
       "settings set symbols.enable-external-lookup false",
       "settings set target.load-script-from-symbol-file false",
       "settings set plugin.jit-loader.gdb.enable off"},
      kStartTimeout);
}

Lldb::Lines Lldb::AttachCommands(pid_t pid) const {
  return {"process attach -p " + std::to_string(pid),
          // A stop at a signal would break off a call, and lose the signal.
          "process handle -s false -n false -p true SIGHUP SIGINT SIGQUIT SIGILL SIGABRT SIGBUS "
          "SIGFPE SIGUSR1 SIGSEGV SIGUSR2 SIGPIPE SIGTERM SIGCHLD SIGCONT SIGTSTP SIGTTIN SIGTTOU "
          "SIGURG SIGXCPU SIGXFSZ SIGVTALRM SIGALRM SIGWINCH SIGIO SIGPWR SIGSYS"};
}

Lldb::Lines Lldb::ReadThreads() {
  std::map<unsigned, pid_t> ids;
  for (const std::string& line : Run({"thread list"}, kReplyTimeout)) {
    const std::size_t at = line.find("thread #");
    unsigned number = 0;
    pid_t id = 0;
    if (at != std::string::npos &&
        std::sscanf(line.c_str() + at, "thread #%u: tid = %d", &number, &id) == 2) {
      ids[number] = id;
    }
  }
  Lines threads;
  for (const auto& [number, id] : ids) {
    std::string names;
    for (const std::string& name : RegisterNames()) names += " " + name;
    std::map<std::string, std::string> values;
    for (const std::string& line :
         Run({"thread select " + std::to_string(number), "register read -f d" + names},
             kReplyTimeout)) {
      char name[8];
      char value[32];
      if (std::sscanf(line.c_str(), " %7s = %31s", name, value) == 2) values[name] = value;
    }
    std::string text = "@T " + std::to_string(number);
    for (const std::string& name : RegisterNames()) text += " " + values[name];
    const auto call =
        ReadTextFile("/proc/" + std::to_string(pid_) + "/task/" + std::to_string(id) + "/syscall");
    threads.push_back(text + " " + std::to_string(std::atol(call.value_or("-1").c_str())));
  }
  return threads;
}

// With a pipe as input, lldb does not wait for the process.
Lldb::Lines Lldb::RunToCommands(std::uint64_t) const {
  return {};
}

Lldb::Lines Lldb::SetResult(unsigned thread, int error) const {
  return {"thread select " + std::to_string(thread),
          // Unsigned.
          "register write " + RegisterNames().front() + " " +
              std::to_string(static_cast<std::uint64_t>(std::int64_t{error}))};
}

Lldb::Lines Lldb::CallCommands(const FunctionCall& call) const {
  const std::string select = "thread select " + std::to_string(call.thread.number);
  return {
      select, "register write sp " + std::to_string(call.stack),
      "expression -u true -i true -a true -t 0 -f d -- " + CallText(call.function, call.arguments),
      select, "register write sp " + std::to_string(call.thread.StackPointer())};
}

}  // namespace

std::unique_ptr<Debugger> StartLldb(const std::string& path, pid_t pid) {
  return std::make_unique<Lldb>(path, pid);
}

}  // namespace memleak
