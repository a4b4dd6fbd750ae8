// SPDX-License-Identifier: Apache-2.0
#include "tools/target/debugger_commands.h"

#include <cstdlib>

#include "tools/base/files.h"
#include "tools/base/user_error.h"
#include "tools/target/program_file.h"

namespace memleak {
namespace {

// The names that distributions give lldb.
std::vector<std::string> LldbNames() {
  std::vector<std::string> names = {"lldb"};
  for (int version = 25; version >= 11; --version) {
    names.push_back("lldb-" + std::to_string(version));
  }
  return names;
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

}  // namespace

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

std::unique_ptr<Debugger> StartDebugger(pid_t pid) {
  if (const std::string gdb = FirstInPath({"gdb"}); !gdb.empty()) {
    return StartGdb(gdb, pid);
  }
  if (const std::string lldb = FirstInPath(LldbNames()); !lldb.empty()) {
    return StartLldb(lldb, pid);
  }
  throw UserError("neither gdb nor lldb is installed, and attaching needs one of them",
                  "install gdb");
}

}  // namespace memleak
