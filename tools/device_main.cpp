// The device edition of `memleak`: the commands that steer a process and fetch its report. Reports
// are read on the host.
#include <string>
#include <vector>

#include "tools/commands/all.h"

namespace memleak {
namespace {

constexpr const char* kHelp = R"(
A session, in a root shell of the device:
  memleak status $(pidof server)   is the tracker loaded, does it record
  memleak on $(pidof server)       record from now on
  memleak report $(pidof server)   stop, and write what is still held
and at the desk:
  adb pull /data/log/reliability/allocations_dump
  memleak show allocations_dump --sysroot DIR --symbols DIR

A process has the tracker loaded when the C library has taken it as the malloc
debug library at its start. Take root, or the process's own user: for an app
that can be debugged, run-as PACKAGE. There is one report file and one set of
properties for all processes of a device: ask for one report at a time.

Commands are not answered: what came of one stands in logcat -s MemLeak.Native.

Every command explains itself: memleak COMMAND --help.

Exit codes:
  0  done
  1  the answer is no (status: not tracked; libs: nothing to hook)
  2  an error; one line says what, where and how to mend it)";

int Main(const std::vector<std::string>& arguments) {
  Program program("memleak - steer the recording of native memory in a process of this device",
                  kHelp, Edition::kDevice);
  AddOn(&program);
  AddPause(&program);
  AddReport(&program);
  AddClear(&program);
  AddLibs(&program);
  AddFd(&program);
  AddSend(&program);
  AddStatus(&program);
  return program.Run(arguments);
}

}  // namespace
}  // namespace memleak

int main(int count, char** values) {
  return memleak::GuardedMain(count, values, memleak::Main);
}
