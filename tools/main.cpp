// SPDX-License-Identifier: Apache-2.0
// The program `memleak`.
#include <string>
#include <vector>

#include "tools/commands/command_line.h"

namespace memleak {
namespace {

constexpr const char* kHelp = R"(
A session:
  memleak attach 4711          record a process that already runs
  memleak report 4711          stop, and write a report of the live memory
  memleak show 4711            show the call stacks that hold most

memleak run -- ./server starts a program that memleak on can record later.

--kind selects other memory than the native heap: see memleak on --help.

A command waits until the process has carried it out: at most 60 s, and 3 s if
no thread of the process calls an allocator function. Then it fails, and stays
queued in the process. --timeout of report and watch replaces the 60 s.

memleak COMMAND --help describes a command.

Exit codes:
  0  success
  1  no (status: not tracked; libs: nothing to hook; diff: grew too much)
  2  error (see stderr))";

int Main(const std::vector<std::string>& arguments) {
  Program program("memleak - find which call stacks of a running program hold its memory", kHelp,
                  false);
  AddRun(&program);
  AddAttach(&program);
  AddDetach(&program);
  AddOn(&program);
  AddPause(&program);
  AddReport(&program);
  AddClear(&program);
  AddLibs(&program);
  AddFd(&program);
  AddSend(&program);
  AddStatus(&program);
  AddShow(&program);
  AddWatch(&program);
  AddHtml(&program);
  AddDiff(&program);
  AddExport(&program);
  return program.Run(arguments);
}

}  // namespace
}  // namespace memleak

int main(int count, char** values) {
  return memleak::GuardedMain(count, values, memleak::Main);
}
