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

Every command explains itself: memleak COMMAND --help.

Exit codes:
  0  done
  1  the answer is no (status: not tracked), or an internal error
  2  an error that one can mend; one line says what, where and how)";

inline constexpr const char* kRun = R"(
Prepares a root directory, sets the environment and becomes PROGRAM, which
keeps this process's id. Nothing is recorded until `memleak on PID`, unless
--start is given. Children that the program forks are tracked too; "%p" in a
root directory stands for each one's pid. --report-at-exit writes nothing when
the program leaves by _exit or a fatal signal.

Examples:
  memleak run -- sqlite3 test.db
  memleak run --start --report-at-exit --root out -- ./example
  memleak run --depth 24 --unwind dwarf -- ./server
  memleak run --emulator 'qemu-aarch64 -L /' -- ./arm64-program

Exit codes:
  2  the program cannot be tracked, or root directory or log not be written
  otherwise those of the program)";

inline constexpr const char* kOn = R"(
Starts recording in a process that `memleak run` has started, with empty
tables unless --keep is given. --depth and --unwind are written to the
properties in its root directory.

Examples:
  memleak on 4711
  memleak on 4711 --keep --depth 24

Exit codes:
  0  the command was sent
  2  no such process, not permitted, not tracked, or root directory not
     writable)";

inline constexpr const char* kPause = R"(
No new blocks are recorded; blocks that are freed still leave the tables.
`memleak on PID --keep` goes on.

Example:
  memleak pause 4711

Exit codes:
  0  the command was sent
  2  no such process, not permitted, or not tracked)";

inline constexpr const char* kReport = R"(
Stops recording, has the process write its report, waits until that is
complete and prints where it is. A report that is already there is kept beside
it as allocations_dump.old.

Examples:
  memleak report 4711
  memleak report 4711 --timeout 300

Exit codes:
  0  the report is complete
  2  no such process, not permitted, not tracked, or no complete report in time)";

inline constexpr const char* kClear = R"(
Drops everything recorded so far. Recording stays as it is, on or off.

Example:
  memleak clear 4711

Exit codes:
  0  the command was sent
  2  no such process, not permitted, or not tracked)";

inline constexpr const char* kSend = R"(
Sends any control word. Bits of the native heap: 0x10 on, 0x20 pause, 0x40
stop and report, 0x80 clear; a word may hold several, carried out from the
lowest of these up. The parameter holds the backtrace size in bits 31 to 16
and the type character in bits 15 to 0.

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
