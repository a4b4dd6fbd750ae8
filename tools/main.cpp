// The program `memleak`: a list of commands.
#include <string>
#include <vector>

#include "tools/commands/all.h"

namespace memleak {
namespace {

constexpr const char* kHelp = R"(
A session:
  memleak run -- ./server &    start a program, tracked but not recording
  memleak on $!                record from now on
  memleak report $!            stop, and write what is still held
  memleak show ./memleak.$!    the largest groups, with their call stacks

Memory that a library maps itself, or gets from a device, is recorded with
--kind: see memleak on --help, and memleak libs PID for what can be hooked.

Every command explains itself: memleak COMMAND --help.

Exit codes:
  0  done
  1  the answer is no (status: not tracked; libs: nothing to hook; diff: grew
     by more than --fail-over)
  2  an error; one line says what, where and how to mend it)";

int Main(const std::vector<std::string>& arguments) {
  Program program("memleak - find which call stacks of a running program hold its memory", kHelp,
                  Edition::kHost);
  AddRun(&program);
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
