// The texts that --help of the device edition prints where they are not those of help_texts.h. Used
// by device_main alone.
#pragma once

namespace memleak::help {

inline constexpr const char* kDeviceMain = R"(
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

inline constexpr const char* kDeviceOn = R"(
Starts recording in a process that has the tracker loaded, with empty tables
unless --keep is given. Options are kept in system properties, which hold for
all processes, from their next `on`; to set them takes root:
  --depth   vastel.memleak.backtacemaxnum
  --unwind  vastel.memleak.backtacetype (0: frame pointers, 1: dwarf)
  --lib     persist.sys.memleak.hookLib, kept over a restart of the device
  --func    persist.sys.memleak.hookFunc, the same

Kinds other than native record calls that chosen libraries make. These are
hooked: the slot through which the library calls a function is made to lead to
the tracker first.
  mmap  anonymous mappings: mmap, mmap64, __mmap2, mremap and munmap, in the
        libraries of --lib. Without --func those of mmap, mmap64, munmap and
        mremap that each library imports.
  ion   DMA-heap buffers: ioctl in libdmabufheap.so
  gpu   KGSL buffers: ioctl in libgsl.so
A list takes up to 91 bytes. Record one kind at a time: all share the tables.
While native memory is recorded, no other kind can be recorded well. As far as
hooked slots tell, commands for native memory are refused meanwhile.

Each `on` puts its hooks on top of those that are there, also after a pause, and
each `report --kind` takes one off, in the libraries that the latest `on` has
named. Hooked calls are always traced by frame pointers, as the unwinder cannot
cross a hook; that stays set for native recording until --unwind says otherwise.
What cannot be hooked, such as the program itself, is told in one line each, and
the rest is hooked.

Examples:
  memleak on 4711
  memleak on 4711 --keep --depth 24
  memleak on 4711 --kind mmap --lib libfoo.so,libbar.so
  memleak on 4711 --kind gpu

Exit codes:
  0  the command was sent; with another kind than native, something was hooked
     or what came of it cannot be seen
  2  no such process, not permitted, not tracked, a property not to be set, or
     nothing hooked)";

inline constexpr const char* kDeviceReport = R"(
Stops recording, has the process write its report, waits until that is complete
and prints where it is and how to fetch it:
/data/log/reliability/allocations_dump. The directory must exist and be writable
for the process. A report that is already there, of any process, is kept beside
it as allocations_dump.old. With --kind, the hooks of the latest `on` are taken
away; what earlier ones have left hooked is named, and records nothing.

With --keep-recording the native heap goes on being recorded: no free is missed,
so that reports taken one after the other can be compared.

Examples:
  memleak report 4711
  memleak report 4711 --keep-recording
  memleak report 4711 --kind mmap

Exit codes:
  0  the report is complete
  2  no such process, not permitted, not tracked, or no complete report in time)";

inline constexpr const char* kDeviceStatus = R"(
Says whether a process is tracked, which properties hold and whether a report,
of this or another process, is there. Whether it records stands in its log:
logcat -s MemLeak.Native.

Example:
  memleak status 4711

Exit codes:
  0  tracked
  1  not tracked, or loaded but not catching signal 44
  2  no such process, or not permitted)";

}  // namespace memleak::help
