// SPDX-License-Identifier: Apache-2.0
#include "tools/target/debugger_commands.h"

#include <elf.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>

#include "tools/base/files.h"
#include "tools/base/user_error.h"
#include "tools/target/program_file.h"

namespace memleak {
namespace {

// Reading a large program on a busy machine.
constexpr std::chrono::milliseconds kStartTimeout(60'000);

// In the order of their DWARF numbers, then the program counter if it has none.
const std::vector<std::string>& RegisterNames() {
#ifdef __aarch64__
  static const std::vector<std::string> kNames = [] {
    std::vector<std::string> names;
    for (int i = 0; i <= 30; ++i) names.push_back("x" + std::to_string(i));
    names.insert(names.end(), {"sp", "pc"});
    return names;
  }();
#else
  static const std::vector<std::string> kNames = {"rax", "rdx", "rcx", "rbx", "rsi", "rdi",
                                                  "rbp", "rsp", "r8",  "r9",  "r10", "r11",
                                                  "r12", "r13", "r14", "r15", "rip"};
#endif
  return kNames;
}

const std::string& ResultRegister() {
  return RegisterNames().front();
}

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

// The first of `names` that PATH has; empty if it has none.
std::string FirstInPath(const std::vector<std::string>& names) {
  const char* path = std::getenv("PATH");
  for (const std::string& name : names) {
    try {
      return FindExecutable(name, path == nullptr ? "/usr/bin:/bin" : path);
    } catch (const UserError&) {
      // The next one.
    }
  }
  return "";
}

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
  Lines CallCommands(const StoppedThread& thread, std::uint64_t stack, std::uint64_t address,
                     const std::vector<std::uint64_t>& arguments) const override;

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
       // Without the libraries' files gdb reads no symbols while the process stands still, and sets
       // no breakpoints in the dynamic linker.
       "set sysroot /nonexistent", "set auto-solib-add off", "set libthread-db-search-path",
       // SIGINT is not among "all". SIGTRAP stops the process.
       "handle all nostop noprint pass", "handle SIGINT nostop noprint pass",
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
  return {"thread apply " + std::to_string(thread) + " -q set $" + ResultRegister() + " = " +
          std::to_string(error)};
}

// gdb has calls of its own, but gdb 13 cannot write the vector registers of processors with large
// ones, and then leaves the thread with wrong registers. Vector registers do not survive calls of
// functions, and so neither a system call, which is in a function of the C library: the general
// registers suffice. The function returns to the entry point of the program, which is not used any
// more.
Gdb::Lines Gdb::CallCommands(const StoppedThread& thread, std::uint64_t stack,
                             std::uint64_t address,
                             const std::vector<std::uint64_t>& arguments) const {
  const std::string select = "thread " + std::to_string(thread.number);
  const std::string entry = std::to_string(entry_);
  Lines lines = {select, "tbreak *" + entry};
  const auto set = [&](const std::string& target, std::uint64_t value) {
    // A new stack pointer gives the stack other frames, and gdb may select an outer one.
    lines.push_back("select-frame 0");
    lines.push_back("set " + target + " = " + std::to_string(static_cast<std::int64_t>(value)));
  };
#ifdef __aarch64__
  const std::vector<std::string> names = {"$x0", "$x1", "$x2"};
  set("$x30", entry_);
  set("$sp", stack);
#else
  const std::vector<std::string> names = {"$rdi", "$rsi", "$rdx"};
  const std::uint64_t top = stack - sizeof(entry_);
  set("*(long*)" + std::to_string(top), entry_);
  set("$rsp", top);
  set("$orig_rax", std::uint64_t(-1));
#endif
  for (std::size_t i = 0; i < arguments.size(); ++i) set(names[i], arguments[i]);
  set("$pc", address);
  // Other stops do not end the call: a SIGTRAP may have been on its way. After an exec, neither the
  // call nor the registers mean anything. A call that fails leaves its reason as the last output.
  lines.insert(lines.end(),
               {"set $executed = 0", "catch exec if ($executed = 1)",
                "while !$executed && (long)$pc != " + entry, "continue", "if !$executed", select,
                "end", "end", "delete", "if !$executed && (long)$pc == " + entry,
                "printf \"$0 = %ld\\n\", $" + ResultRegister(), "end",
                // Returned, or not begun.
                "if !$executed && ((long)$pc == " + entry +
                    " || (long)$pc == " + std::to_string(address) + ")"});
  for (std::size_t i = 0; i < thread.registers.size(); ++i) {
    set("$" + RegisterNames()[i], thread.registers[i]);
  }
#ifdef __x86_64__
  set("$orig_rax", static_cast<std::uint64_t>(thread.system_call));
#endif
  lines.emplace_back("end");
  return lines;
}

class Lldb : public Debugger {
 public:
  Lldb(const std::string& path, pid_t pid);

 private:
  Lines AttachCommands(pid_t pid) const override;
  Lines ReadThreads() override;
  Lines RunToCommands(std::uint64_t address) const override;
  Lines SetResult(unsigned thread, int error) const override;
  Lines CallCommands(const StoppedThread& thread, std::uint64_t stack, std::uint64_t address,
                     const std::vector<std::uint64_t>& arguments) const override;

  pid_t pid_;
};

// The names that distributions give lldb.
std::vector<std::string> LldbNames() {
  std::vector<std::string> names = {"lldb"};
  for (int version = 25; version >= 11; --version) {
    names.push_back("lldb-" + std::to_string(version));
  }
  return names;
}

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
  return {"process attach -p " + std::to_string(pid)};
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
          "register write " + ResultRegister() + " " +
              std::to_string(static_cast<std::uint64_t>(std::int64_t{error}))};
}

Lldb::Lines Lldb::CallCommands(const StoppedThread& thread, std::uint64_t stack,
                               std::uint64_t address,
                               const std::vector<std::uint64_t>& arguments) const {
  const std::string select = "thread select " + std::to_string(thread.number);
  return {select, "register write sp " + std::to_string(stack),
          "expression -u true -i true -a true -t 0 -f d -- " + CallText(address, arguments), select,
          "register write sp " + std::to_string(thread.StackPointer())};
}

}  // namespace

std::unique_ptr<Debugger> StartDebugger(pid_t pid) {
  if (const std::string gdb = FirstInPath({"gdb"}); !gdb.empty()) {
    return std::make_unique<Gdb>(gdb, pid);
  }
  if (const std::string lldb = FirstInPath(LldbNames()); !lldb.empty()) {
    return std::make_unique<Lldb>(lldb, pid);
  }
  throw UserError("neither gdb nor lldb is installed, and attaching needs one of them",
                  "install gdb");
}

}  // namespace memleak
