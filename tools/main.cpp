// SPDX-License-Identifier: Apache-2.0
// The program `memleak`.
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

}  // namespace
}  // namespace memleak

int main(int count, char** values) {
  using namespace memleak;
  return RunProgram(
      count, values,
      {"memleak - find which call stacks of a running program hold its memory", kHelp, false},
      {AddRun, AddAttach, AddDetach, AddOn, AddPause, AddReport, AddClear, AddLibs, AddFd, AddSend,
       AddStatus, AddShow, AddWatch, AddHtml, AddDiff, AddExport});
}
