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
  1  the answer is no (status: not tracked; libs: nothing to hook; diff: grew
     by more than --fail-over)
  2  an error; one line says what, where and how to mend it)";

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
bytes. Record one kind at a time: all share the tables. While native recording
is on or paused, commands for other kinds are refused, and the other way round,
as far as the log or the hooked slots tell: they would spoil the records.

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
  2  no such process, not permitted, not tracked, memory of another kind is
     recorded, root directory not writable, or nothing hooked)";

inline constexpr const char* kPause = R"(
No new blocks are recorded; blocks that are freed still leave the tables.
`memleak on PID --keep` goes on. Of the kinds other than native neither is
recorded; the hooks stay and do nothing, and going on hooks once more.

Examples:
  memleak pause 4711
  memleak pause 4711 --kind mmap

Exit codes:
  0  the command was sent
  2  no such process, not permitted, not tracked, or memory of another kind is
     recorded)";

inline constexpr const char* kReport = R"(
Stops recording, has the process write its report, waits until that is
complete and prints where it is. A report that is already there is kept beside
it as allocations_dump.old. With --kind, the hooks of the latest `on` are taken
away; what earlier ones have left hooked is named, and records nothing.

With --keep-recording the native heap goes on being recorded: no free is missed,
so that reports taken one after the other can be compared. A process that
records through hooks cannot go on: its report takes the hooks away.

Examples:
  memleak report 4711
  memleak report 4711 --keep-recording
  memleak report 4711 --timeout 300
  memleak report 4711 --kind mmap

Exit codes:
  0  the report is complete
  2  no such process, not permitted, not tracked, memory of another kind is
     recorded, or no complete report in time)";

inline constexpr const char* kWatch = R"(
Takes a report every so often while recording goes on, saves each in DIR under
its number and time, and ends by saying what grew from the first to the last.
Native recording is switched on unless the log says that it is on; it is never
switched off. Tables are emptied only where the log says that a report stopped
it. Ends when the time is over, when the process ends, or on Ctrl-C or when the
terminal closes, which takes a last report; a second Ctrl-C ends at once. Ends
too when another command has stopped, paused or cleared recording, and says so:
reports from before and after that cannot be compared. Without a log, only a
report that others take, or one that is empty, tells of it.

A group is the blocks of one size and one stack, compared by the functions and
libraries on it. Of each that grew:
  +4.7 KiB              bytes more in the last report than in the first
  +1.2 KiB/min          its slope: a straight line by least squares through all
                        reports that tell its size
  (95 %: +1.1 to +1.3)  between these lies the true slope in 19 of 20 cases, if
                        the reports scatter about a line at random. A range
                        that is above 0 speaks for a leak; one around 0 for
                        a cache that comes and goes. Takes three reports.
  r2 0.998              how much of the change the line explains: 1 is steady
                        growth, near 0 anything else
A report lists the 1000 largest groups. A group that is not listed while others
are left out counts as unknown there ("?"), not as 0; "known in 4 of 5 reports"
says so. DIR/trend.json holds all groups and values, for programs, DIR/leak.html
shows the difference of first and last in a browser.

Examples:
  memleak watch 4711 -o out
  memleak watch 4711 --every 5m --for 8h -o out

Exit codes:
  0  done
  2  no such process, not permitted, not tracked, recording through hooks, DIR
     not new or not writable, no complete report in time, or another command
     has broken the trend)";

inline constexpr const char* kClear = R"(
Drops everything recorded so far, of every kind. Recording stays as it is, on
or off. Name the kind that is recorded.

Examples:
  memleak clear 4711
  memleak clear 4711 --kind mmap

Exit codes:
  0  the command was sent
  2  no such process, not permitted, not tracked, or memory of another kind is
     recorded)";

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
Prints what a report holds: how much, in how many blocks, how old, and the call
stacks with function, file and line where symbols exist. REPORT is the file or
the root directory that holds it, or a JSON document of `memleak export`. What
lies outside of the view is summed up below it.

--by group lists blocks of one size and one stack; library and function sum
groups up, with all that they call and (self) by the innermost frame alone; tree
goes from the outermost call inwards, callers from the allocating call outwards.
--sort orders groups, sums and the branches of trees; size is that of a block.

--filter takes a POSIX extended regular expression, as grep -E does, to be found
anywhere in a name. Capitals are told apart: write [Ff]oo for either; [0-9], not
\d, is a digit.

--older-than keeps groups whose oldest listed block is at least that old: memory
that comes and goes drops out. A group is called "growing" when it has blocks
from both the first and the last quarter of the time that the report covers,
"settled" when it has none from the last, "recent" when it has none from the
first. A report lists at most 30 ages of a stack: where it is not certain that
they are those of the group's blocks, the ages are said to be "about" so, and
the word is "perhaps". Blocks of other sizes with the same stack may be among
them then, and --older-than may keep or drop such a group wrongly.

Lines come from the libraries, from debug files (by build id, debug link or
name) in --symbols and /usr/lib/debug; from servers with --debuginfod alone.
--sysroot replaces this machine's files by a copy of the device's. A file that
is newer than the report is used with a warning: it may be another build.

Examples:
  memleak show ./memleak.4711
  memleak show ./memleak.4711 --by function --top 20
  memleak show allocations_dump --filter 'libfoo|Cache::' --older-than 10m
  memleak show allocations_dump --symbols out/symbols --sysroot device
  memleak show allocations_dump --json | jq .totals

Exit codes:
  0  shown
  2  not a report, not readable, or truncated (--partial shows what is there))";

inline constexpr const char* kHtml = R"(
Writes one file that shows a report in a browser, with nothing else needed: a
flame graph that zooms and searches, the table of groups with their stacks, and
the ages of their blocks. With --diff, what grew and what shrank since OLD.
A document of `memleak export --format json` or `memleak diff --json` will do as
REPORT too, and one of `memleak export` as OLD.

Examples:
  memleak html ./memleak.4711 -o leak.html
  memleak html new/allocations_dump --diff old/allocations_dump -o grown.html

Exit codes:
  0  written
  2  not a report, not readable, truncated (--partial shows what is there), or
     the page cannot be written)";

inline constexpr const char* kDiff = R"(
Says what grew, shrank, appeared and went from report OLD to report NEW, by call
stack and size of block. Stacks are matched by function and library, so that
reports of different runs can be compared; places without symbols are matched by
the library's build id and offset.

A report holds no symbols: they come from the files that are there now. Where a
program was built anew between both, OLD needs those of its time: by
--old-symbols or --old-sysroot, or by giving the JSON document that
`memleak export --format json` has written then. NEW may be one too.

A report lists its 1000 largest groups. One that only one report lists is called
new or gone only when the other surely lacks it; where it may have been too
small for the list, the bounds are shown ("0 B to 2.0 KiB"), and growth means
what is certain of it.

Several call sites may go by one stack: where one that the other report lists is
missing, it may have been too small just as well. --fail-over compares the
totals, which count all native groups, and the Java-native ones with them.

Examples:
  memleak diff before/memleak.4711 after/memleak.4802
  memleak diff baseline allocations_dump --fail-over 64k
  memleak diff old.json new --json | jq '.groups[] | select(.status == "new")'
  memleak diff old new --old-symbols build-of-old/lib

Exit codes:
  0  done
  1  the total grew by more than --fail-over, and nothing else
  2  any error: not a report, not readable, or truncated (--partial takes what
     is there); with --fail-over, damaged)";

inline constexpr const char* kExport = R"(
Writes a report for other programs:
  folded      one line a stack, outermost function first, for flame graphs;
              ";", "%" and blanks in names are written as %3B, %25 and %20
  speedscope  for the viewer of that name: one profile of bytes, one of blocks
  pprof       for `go tool pprof` and readers of continuous profilers:
              inuse_space and inuse_objects, with build ids and lines
  json        everything there is; docs/report-json.md describes it
  html        the page of `memleak html`

Examples:
  memleak export ./memleak.4711 --format folded > stacks.txt
  memleak export ./memleak.4711 --format pprof -o leak.pb.gz
  memleak export allocations_dump --format speedscope -o leak.speedscope.json

Exit codes:
  0  written
  2  not a report, not readable, or truncated (--partial takes what is there);
     or the output cannot be written)";

}  // namespace memleak::help
