// The texts that --help prints below the options of each subcommand: examples and exit codes.
// Used by main alone.
#pragma once

namespace memleak::help {

inline constexpr const char* kMain = R"(
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
  1  the answer is no (status: not tracked; libs: nothing to hook), or an
     internal error
  2  an error that one can mend; one line says what, where and how)";

inline constexpr const char* kRun = R"(
Prepares a root directory, sets the environment and becomes PROGRAM, which
keeps this process's id. Nothing is recorded until `memleak on PID`, unless
--start is given. Children that the program forks are tracked too; "%p" in a
root directory stands for each one's pid. --report-at-exit writes nothing when
the program leaves by _exit or a fatal signal.

With --kind, --start hooks libraries before main, and --report-at-exit reports
that kind. Only libraries that the program is linked with are there by then:
for those that it loads later, run it without --start and give
`memleak on PID --kind ...` when they are loaded. What was hooked stands in the
log (--log) and in `memleak libs PID`.

Examples:
  memleak run -- sqlite3 test.db
  memleak run --start --report-at-exit --root out -- ./example
  memleak run --depth 24 --unwind dwarf -- ./server
  memleak run --start --kind mmap --lib libfoo.so -- ./server
  memleak run --emulator 'qemu-aarch64 -L /' -- ./arm64-program

Exit codes:
  2  the program cannot be tracked, or root directory or log not be written
  otherwise those of the program)";

inline constexpr const char* kOn = R"(
Starts recording in a process that `memleak run` has started, with empty
tables unless --keep is given. --depth and --unwind are written to the
properties in its root directory.

Kinds other than native record calls that chosen libraries make. These are
hooked: the slot through which the library calls a function is made to lead to
the tracker first.
  mmap  anonymous mappings: mmap, mmap64, __mmap2, mremap and munmap, in the
        libraries of --lib. Without --func those of mmap, mmap64, munmap and
        mremap that each library imports.
  ion   DMA-heap buffers: ioctl in libdmabufheap.so
  gpu   KGSL buffers: ioctl in libgsl.so
--lib and --func are written to the properties too; such a list takes up to 91
bytes. Record one kind at a time: all share the tables. Beside native recording
no other kind is switched on, nor the other way round, where a log tells.

Each `on` puts its hooks on top of those that are there, also after a pause, and
each `report --kind` takes one off, in the libraries that the latest `on` has
named. What is left records nothing until the next `on`.

Hooked calls are always traced by frame pointers, as the unwinder cannot cross
a hook; that stays set for native recording until --unwind says otherwise.
What cannot be hooked: the program itself and static code, libraries built
with -fno-plt, slots not resolved yet (lazy binding). Each is told in one line,
and the rest is hooked.

Examples:
  memleak on 4711
  memleak on 4711 --keep --depth 24
  memleak on 4711 --kind mmap --lib libfoo.so,libbar.so
  memleak on 4711 --kind mmap --lib libsqlite3.so.0 --func mmap64,munmap,mremap
  memleak on 4711 --kind gpu

Exit codes:
  0  the command was sent; with another kind than native, something was hooked
  2  no such process, not permitted, not tracked, root directory not writable,
     or nothing hooked)";

inline constexpr const char* kPause = R"(
No new blocks are recorded; blocks that are freed still leave the tables.
`memleak on PID --keep` goes on. Of the kinds other than native neither is
recorded; the hooks stay and do nothing, and going on hooks once more.

Examples:
  memleak pause 4711
  memleak pause 4711 --kind mmap

Exit codes:
  0  the command was sent
  2  no such process, not permitted, or not tracked)";

inline constexpr const char* kReport = R"(
Stops recording, has the process write its report, waits until that is
complete and prints where it is. A report that is already there is kept beside
it as allocations_dump.old. With --kind, the hooks of the latest `on` are taken
away; what earlier ones have left hooked is named, and records nothing.

Examples:
  memleak report 4711
  memleak report 4711 --timeout 300
  memleak report 4711 --kind mmap

Exit codes:
  0  the report is complete
  2  no such process, not permitted, not tracked, or no complete report in time)";

inline constexpr const char* kClear = R"(
Drops everything recorded so far, of every kind. Recording stays as it is, on
or off.

Example:
  memleak clear 4711

Exit codes:
  0  the command was sent
  2  no such process, not permitted, or not tracked)";

inline constexpr const char* kLibs = R"(
Lists the libraries of a process that import a function which can be hooked, by
the names that `on --lib` takes, and for each function how: "yes" can be hooked,
"-" is not imported; others are explained below the table. A library is listed
by the name it was loaded by, which may be that of a link to its file. Works for
any process that may be looked at, tracked or not, and for emulated ones.

Example:
  memleak libs 4711

Exit codes:
  0  something can be hooked
  1  nothing can
  2  no such process, or not permitted)";

inline constexpr const char* kFd = R"(
Steers libfdtrack.so, a library of its own that tracks file descriptors: the
tracker loads it into the process and calls it.
  on     load it if need be, and track with --depth frames (default: as set
         for recording)
  off    track no more
  dump   have it write its stacks
  clear  release it; also drops all memory records, of every kind

Examples:
  memleak fd on 4711 --depth 16
  memleak fd dump 4711

Exit codes:
  0  done, as far as can be seen
  2  no such process, not permitted, not tracked, the library or one of its
     functions missing, or not switched on before)";

inline constexpr const char* kSend = R"(
Sends any control word. Bits of the native heap: 0x10 on, 0x20 pause, 0x40
stop and report, 0x80 clear; the same for mmap from 0x100 to 0x800, for ion
from 0x1000 to 0x8000, for gpu from 0x10000 to 0x80000; of file descriptors:
0x100000 on, 0x200000 off, 0x400000 dump, 0x800000 clear. A word may hold
several; docs/control-protocol.md has their order. The parameter holds the
backtrace size in bits 31 to 16 and the type character in bits 15 to 0.

Examples:
  memleak send 4711 --word 0x90
  memleak send 4711 --word 0x10 --parameter 0xa0031

Exit codes:
  0  the word was sent
  2  no such process, not permitted, not tracked, or a word that is no number)";

inline constexpr const char* kStatus = R"(
Says whether a process is tracked, whether it records (as far as its log
tells), where its root directory is, which properties hold and whether a
report is there.

Example:
  memleak status 4711

Exit codes:
  0  tracked
  1  not tracked, or loaded but not catching signal 44
  2  no such process, or not permitted)";

inline constexpr const char* kShow = R"(
Prints the largest groups of a report: how much they hold, how many blocks,
how old, and the call stack with function, file and line where symbols exist.
REPORT is the file or the root directory that holds it.

Examples:
  memleak show ./memleak.4711
  memleak show ./memleak.4711/data/log/reliability/allocations_dump --top 3

Exit codes:
  0  shown
  2  not a report, not readable, or truncated (--partial shows what is there))";

}  // namespace memleak::help
