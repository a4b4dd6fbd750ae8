// SPDX-License-Identifier: Apache-2.0
// The device edition of `memleak`: the commands that control a process. Reports are read on the
// host.
#include "tools/commands/command_line.h"

namespace memleak {
namespace {

constexpr const char* kHelp = R"(
A session, in a root shell of the device:
  memleak status $(pidof server)   check that the tracker is loaded
  memleak on $(pidof server)       start recording
  memleak report $(pidof server)   stop, and write a report of the live memory
and on the host:
  adb pull /data/log/reliability/allocations_dump
  memleak show allocations_dump --sysroot DIR --symbols DIR

The C library of a process loads the tracker as its malloc debug library at the
start. Run memleak as root or as the user of the process; for a debuggable app,
use run-as PACKAGE. All processes of a device share one report file and one set
of properties: request one report at a time.

Processes do not answer commands. For results see logcat -s MemLeak.Native.

memleak COMMAND --help describes a command.

Exit codes:
  0  success
  1  no (status: not tracked; libs: nothing to hook)
  2  error (see stderr))";

}  // namespace
}  // namespace memleak

int main(int count, char** values) {
  using namespace memleak;
  return RunProgram(
      count, values,
      {"memleak - control the recording of memory in a process of this device", kHelp, true},
      {AddOn, AddPause, AddReport, AddClear, AddLibs, AddFd, AddSend, AddStatus});
}
