// SPDX-License-Identifier: Apache-2.0
// The commands of gdb and of lldb. Used by debugger.cpp only; single-threaded.
#pragma once

#include <string>
#include <vector>

#include "tools/target/debugger.h"

namespace memleak {

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

/// The names that distributions give lldb.
std::vector<std::string> LldbNames();

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

}  // namespace memleak
