// SPDX-License-Identifier: Apache-2.0
// Whole commands, with a fake tracker in the watched process: the environment that `run` sets, and
// errors with their exit codes.
#include <gtest/gtest.h>

#include <sstream>

#include "tests/temporary_directory.h"
#include "tests/tools/shell.h"
#include "tools/base/names.h"
#include "tools/target/root_directory.h"

namespace memleak {
namespace {

Outcome Memleak(const std::string& arguments) {
  return Shell(MEMLEAK_PROGRAM " " + arguments);
}

void ExpectHas(const std::string& text, const std::string& part) {
  EXPECT_NE(text.find(part), std::string::npos) << "no \"" << part << "\" in:\n" << text;
}

void ExpectFails(const std::string& arguments, const std::string& part) {
  const Outcome failed = Memleak(arguments);
  EXPECT_EQ(failed.code, 2) << arguments;
  ExpectHas(failed.output, part);
  EXPECT_EQ(failed.output.find('\n'), failed.output.size() - 1) << failed.output;
}

// Other preloaded libraries stay; commands of an outer tracker go.
TEST(Run, ComposesTheEnvironmentAndBecomesTheProgram) {
  const TemporaryDirectory directory;
  const Outcome outcome = WithProgram(
      directory, "--start --depth 24 --unwind fp --log log.%p",
      FIXTURE_SLEEPER " -x --depth 'a b' --",
      "sed s/$P/PID/ out; stat -c %a memleak.$P memleak.$P/*; cat memleak.$P/properties",
      "ASAN_OPTIONS=verify_asan_link_order=0 MEMLEAK_TRACKER_REPORT_AT_EXIT=1 "
      "LD_PRELOAD=libm.so.6");
  const std::string here = std::filesystem::canonical(directory.Path("")).string();
  for (const std::string& part :
       {std::string("argument=-x\nargument=--depth\nargument=a b\nargument=--\n"),
        std::string("LD_PRELOAD=" FIXTURE_LIBDIR "/libmemleak_preload.so:libm.so.6\n"),
        std::string("LD_BIND_NOW=1\n"), std::string("MEMLEAK_TRACKER_START=0x10\n"),
        "MEMLEAK_TRACKER_ROOT=" + here + "/memleak.%p\n",
        "MEMLEAK_TRACKER_LOG=" + here + "/log.%p\n",
        "MEMLEAK_TRACKER_PROPERTIES=" + here + "/memleak.PID/properties\n",
        std::string("\n700\n600\nvastel.memleak.backtacetype=0\nvastel.memleak.backtacemaxnum="
                    "24\nended 7")}) {
    ExpectHas(outcome.output, part);
  }
  EXPECT_EQ(outcome.output.find("REPORT_AT_EXIT"), std::string::npos);
  // Other lines stay, and the last valid one counts.
  const std::string before =
      "other=1\nvastel.memleak.backtacemaxnum=20\nvastel.memleak.backtacemaxnum=12a\n#x";
  EXPECT_EQ(ParseSettings(before).depth, 20U);
  EXPECT_EQ(UpdateProperties(before, {.depth = 30, .type = std::nullopt}),
            "other=1\n#x\nvastel.memleak.backtacemaxnum=30\n");
}

// $! is known before the shell's child executes the controller, which executes the program. Some
// rounds delay the shell.
TEST(Run, AcceptsCommandsRightAfterItsStart) {
  const TemporaryDirectory directory;
  for (int round = 0; round < 20; ++round) {
    const Outcome on =
        Shell("cd " + directory.Path("") + " && rm -f fifo && mkfifo fifo; { " +
              (round % 4 == 0 ? "sleep 0.2; " : "") +
              "exec " MEMLEAK_PROGRAM " run --libdir " FIXTURE_LIBDIR
              " --root root --log log -- " FIXTURE_SLEEPER " <>fifo >out; } & " MEMLEAK_PROGRAM
              " on $!; code=$?; kill $!; exit $code");
    EXPECT_EQ(on.code, 0) << on.output;
    ExpectHas(on.output, ": recording on, tables emptied");
  }
}

// End-to-end tests cover the effects of commands on a real tracker. If the old report cannot be
// moved, it is not mistaken for the new one. If it is moved and no new one is written, it is
// restored.
TEST(Session, StatusFollowsTheLogAndReportsWait) {
  const TemporaryDirectory directory;
  const Outcome outcome = WithProgram(directory, "--root root --log log", FIXTURE_SLEEPER, R"(
    soon() {
      for i in $(seq 100); do $M status $P | grep "$1" && return; sleep 0.02; done; $M status $P
    }
    soon 'never switched on'; $M on $P --depth 12 --unwind dwarf; soon 'recording   on$'
    $M pause $P; soon 'recording   paused$'
    D=root/data/log/reliability; mkdir -p $D; printf 'old\nEND' >$D/allocations_dump
    $M report --timeout 1 $P; echo "code $?"; cat log $D/*; mkdir $D/allocations_dump.old
    (until [ $(grep -c addr:0x40 log) = 2 ]; do sleep 0.02; done
     printf 'new\nEND' >$D/allocations_dump) & $M report $P; cat $D/allocations_dump
    rm log; $M status $P; $M status $$; echo "code $?")");
  for (const char* part :
       {"off (never switched on)", "recording on, tables emptied, 12 frames by dwarf",
        "recording   on\n", "recording   paused\n", "memleak: no complete report after 1 s",
        "code 2\nreceived_sig 44;addr:0x90\nparameter 0xc0031\n",
        "addr:0x40\nparameter 0x0\nold\nENDmemleak: not a report: ", "new\nENDprocess ",
        "its log cannot be read: No such file or directory)", "tracked     no\ncode 1\n"}) {
    ExpectHas(outcome.output, part);
  }
}

// Names of processes, files, libraries and functions can contain any bytes.
TEST(Output, NamesCannotControlTheTerminal) {
  const TemporaryDirectory directory;
  const std::string name = "p\x1b[1m\x7f\xc2\x9b\x9b";
  std::filesystem::copy_file(FIXTURE_SLEEPER, directory.Path(name));
  const std::string report =
      "Native Heap MemLeak Tracker Version 2.0:\nTotal memory(bytes): 9\nAllocation records: 1/1\n"
      "Backtrace size: 10\n\nsz 9 9 num 1 time 1  bt [/" +
      name + "+0x1] \ngarbage" + name +
      "\n==============================Java-Native Stack==============================\n";
  directory.Write(name + ".1", report + "END");
  directory.Write(name + ".2", report + "sz 9 9 num 1\n#00 rel_pc 1 " + name + "\nEND");
  const Outcome outcome =
      WithProgram(directory, "--root \"$N\".root --log \"$N\".log", "./\"$N\"", R"(
    for c in on status libs pause 'fd off' 'report --timeout 1'; do $M $c $P; done
    for by in group library function tree callers; do $M show --by $by "$N".2; done
    for f in json folded speedscope; do $M export "$N".2 --format $f; done
    $M diff "$N".1 "$N".2; $M diff "$N".1 "$N".2 --json; $M show "$N"; $M "$N")",
                  "N=$(printf 'p\\033[1m\\177\\302\\233\\233'); ");
  std::istringstream lines(outcome.output);
  for (std::string line; std::getline(lines, line);) {
    for (std::string_view rest = line; !rest.empty();) {
      const Character character = FirstCharacter(rest);
      ASSERT_TRUE(character.printable) << Printable(line);
      rest.remove_prefix(character.bytes.size());
    }
  }
  ExpectHas(outcome.output, " (p\\x1b[1m\\x7f\\xc2\\x9b\\x9b): recording on");
  ExpectHas(outcome.output, "unknown command: p\\x1b[1m");
}

// A user's process may name files that only root can read or write.
TEST(Session, RootUsesTheRightsOfTheProcessOwner) {
  const TemporaryDirectory directory;
  const std::string become = "setpriv --reuid=1234 --regid=1234 --clear-groups ";
  if (Shell(become + FIXTURE_SLEEPER " </dev/null").code != 7) {
    GTEST_SKIP() << "only root can become another user, who must be able to read the build tree";
  }
  const Outcome outcome = Shell("cd " + directory.Path("") +
                                R"(
    chmod 755 .; mkdir -m 700 secret; echo secret=1 >secret/properties; mkdir -m 777 users
    export LD_PRELOAD=)" FIXTURE_LIBDIR R"(/libmemleak_preload.so
    start() {  # ROOT
      mkfifo fifo; MEMLEAK_TRACKER_ROOT=$1 MEMLEAK_TRACKER_PROPERTIES=$PWD/secret/properties         setpriv --reuid=1234 --regid=1234 --clear-groups )" FIXTURE_SLEEPER
                                R"( <fifo >out &
      P=$!; exec 3>fifo; until grep -qs ready out; do sleep 0.02; done
      LD_PRELOAD= )" MEMLEAK_PROGRAM
                                R"( on $P --depth 3; echo "code $?"; exec 3>&-; wait $P; rm fifo
    }
    start $PWD/users/root; stat -c %a:%u:%g users/root users/root/*; cat users/root/properties
    start $PWD/secret; cat secret/properties; start $PWD/new)");
  ExpectHas(outcome.output,
            "code 0\n700:1234:1234\n600:1234:1234\nvastel.memleak.backtacemaxnum=3\n");
  ExpectHas(outcome.output, "/secret: Permission denied; ");
  ExpectHas(outcome.output, "code 2\nsecret=1\nmemleak: root directory not writable: ");
  ExpectHas(outcome.output, "/new: Permission denied; ");
}

TEST(Errors, EachIsOneLineWithExitCodeTwo) {
  const TemporaryDirectory directory;
  const std::string file = directory.Write("file", "");
  const std::string cut =
      directory.Write("cut", "Native Heap MemLeak Tracker Version 2.0:\nTotal memory(bytes): 1\n");
  // Programs of another width and machine: changes single bytes of the ELF header.
  Shell("cd " + directory.Path("") + R"(; mkdir -m 777 open; ln -s root link
    for f in narrow riscv setuid; do cp )" FIXTURE_SLEEPER R"( $f; done; chmod u+s setuid
    printf '\\001' | dd of=narrow bs=1 seek=4 conv=notrunc
    printf '\\363' | dd of=riscv bs=1 seek=18 conv=notrunc
    echo hello >text; echo "#!$PWD/loop" >loop; echo '#!/no/such/shell' >orphan
    chmod +x text loop orphan)");
  const std::string program = "run -- " + directory.Path("");
  const std::string sleeper = " -- " FIXTURE_SLEEPER;
  const std::string run = "run --libdir " FIXTURE_LIBDIR " --root ";
  const std::pair<std::string, const char*> cases[] = {
      {"", "subcommand"},
      {"fly", "unknown command: fly"},
      {"on 99999999", "no such process"},
      {"on abc", "invalid PID 'abc' (process id; find it with: "},
      {"on 1 --depth 0", "invalid --depth '0' (frames, 1 to 65535)"},
      {"report 1 --timeout -3", "invalid --timeout '-3' ("},
      {"diff a b --fail-over 1.5k", "invalid --fail-over '1.5k' (bytes, such as"},
      {"watch 1 -o x --every 0s", "invalid --every '0s' (at least a second"},
      {"show x --min-size 99999999999g", "invalid --min-size '99999999999g' (bytes"},
      {"send 1 --word 0x10000000000000000", "invalid --word"},
      {"run", "no program given"},
      {"run --frobnicate -- ls", "unknown option"},
      {"run -- " FIXTURE_STATIC, "static"},
      {program + "narrow", "32-bit"},
      {program + "riscv", "another architecture"},
      {program + "setuid", "program is setuid"},
      {program + "text", "not an ELF program"},
      {program + "loop", "too many nested script interpreters"},
      {program + "orphan", "program not found: /no/such/shell"},
      {program + "open", "not a program"},
      {program + "file", "not executable"},
      {"run -- no-such-program", "not found in PATH"},
      {"run --libdir /nonexistent" + sleeper, "--libdir"},
      {run + file + sleeper, "root directory not writable"},
      {run + directory.Path("open") + sleeper, "/open: other users may write to it; choose"},
      {run + directory.Path("link") + sleeper, "/link: it is a symbolic link; choose"},
      {run + directory.Path("root") + " --log /nonexistent/%p" + sleeper,
       "log not writable: /none"},
      {run + directory.Path("root") + " --log " + directory.Path("link") + sleeper,
       "/link: it is a symbolic link; name"},
      {"show " + file, "not a report"},
      {"show " + cut, "truncated"},
  };
  for (const auto& [arguments, part] : cases) ExpectFails(arguments, part);
  EXPECT_EQ(Memleak("show --partial " + cut).code, 0);
}

TEST(Output, IsWrittenCompletelyAndNeverOverTheInput) {
  const TemporaryDirectory directory;
  const std::string text =
      "Native Heap MemLeak Tracker Version 2.0:\nTotal memory(bytes): 0\n"
      "Allocation records: 0/0\nBacktrace size: 10\nEND\n";
  const std::string report = directory.Write("allocations_dump", text);
  const std::string link = directory.Path("link");
  std::filesystem::create_symlink(report, link);
  ExpectFails("export " + report + " --format pprof -o " + link, "would overwrite the input");
  ExpectFails("html " + directory.Path("") + " -o " + report, "would overwrite the input");
  ExpectFails("html " + link + " --diff " + report + " -o " + report, "would overwrite");
  EXPECT_EQ(Shell("cat " + report).output, text);

  directory.Write("old", "other");
  const Outcome written =
      Shell("cd " + directory.Path("") +
            "; chmod 600 old; ln -s old new; " MEMLEAK_PROGRAM
            " export allocations_dump --format json -o new && stat -c %a old && test -L new && ls");
  EXPECT_EQ(written.output, "600\nallocations_dump\nlink\nnew\nold\n");
  ExpectHas(Shell("cat " + directory.Path("old")).output, "memleak-profile");
  ExpectFails("export " + report + " --format json -o /dev/full", "No space left on device");
}

}  // namespace
}  // namespace memleak
