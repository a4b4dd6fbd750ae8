// SPDX-License-Identifier: Apache-2.0
// Whole commands on a small program: the environment that `run` sets, what commands refuse, and
// errors with their exit codes. End-to-end tests cover what commands record.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <sstream>

#include "tests/temporary_directory.h"
#include "tools/base/names.h"

namespace memleak {
namespace {

struct Outcome {
  int code = -1;
  std::string output;
};

/// The output of `command`, errors included, and its exit code; -1 if a signal ended it.
Outcome Shell(const std::string& command) {
  Outcome outcome;
  FILE* pipe = popen(("{ " + command + "\n} 2>&1").c_str(), "re");
  std::array<char, 4096> buffer{};
  std::size_t count = 0;
  do {
    count = std::fread(buffer.data(), 1, buffer.size(), pipe);
    outcome.output.append(buffer.data(), count);
  } while (count != 0);
  const int status = pclose(pipe);
  outcome.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return outcome;
}

/// Runs `script` in `directory` while memleak runs `program` with `options` and `environment`. In
/// the script $M is memleak, $P the program's process id, and the file "out" has the program's
/// output. The program ends when its input ends.
Outcome WithProgram(const TemporaryDirectory& directory, const std::string& options,
                    const std::string& program, const std::string& script,
                    const std::string& environment = "") {
  return Shell("cd " + directory.Path("") + "; M=" MEMLEAK_PROGRAM "; mkfifo fifo; " + environment +
               " $M run " + options + " -- " + program +
               " <fifo >out & P=$!; exec 3>fifo; until grep -qs ready out; do sleep 0.02; done; " +
               script + "\nexec 3>&-; wait $P; echo \"ended $?\"");
}

void ExpectHas(const std::string& text, const std::vector<std::string>& parts) {
  for (const std::string& part : parts) {
    EXPECT_NE(text.find(part), std::string::npos) << "no \"" << part << "\" in:\n" << text;
  }
}

void ExpectFails(const std::string& arguments, const std::string& part) {
  const Outcome failed = Shell(MEMLEAK_PROGRAM " " + arguments);
  EXPECT_EQ(failed.code, 2) << arguments;
  ExpectHas(failed.output, {part});
  EXPECT_EQ(failed.output.find('\n'), failed.output.size() - 1) << failed.output;
}

// Other preloaded libraries stay; commands of an outer tracker go.
TEST(Run, ComposesTheEnvironmentAndBecomesTheProgram) {
  const TemporaryDirectory directory;
  const Outcome outcome = WithProgram(
      directory, "--start --depth 24 --unwind fp --log log.%p",
      FIXTURE_SLEEPER " -x --depth 'a b' --",
      "sed s/$P/PID/ out; stat -c %a memleak.$P memleak.$P/properties; cat memleak.$P/properties",
      "ASAN_OPTIONS=verify_asan_link_order=0 MEMLEAK_TRACKER_REPORT_AT_EXIT=1 "
      "LD_PRELOAD=libm.so.6");
  const std::string here = std::filesystem::canonical(directory.Path("")).string();
  ExpectHas(outcome.output,
            {"argument=-x\nargument=--depth\nargument=a b\nargument=--\n",
             "LD_PRELOAD=/$LIB/../../../.." MEMLEAK_PRELOAD ":libm.so.6\n", "LD_BIND_NOW=1\n",
             "MEMLEAK_TRACKER_START=0x10\n", "MEMLEAK_TRACKER_ROOT=" + here + "/memleak.%p\n",
             "MEMLEAK_TRACKER_LOG=" + here + "/log.%p\n",
             "MEMLEAK_TRACKER_PROPERTIES=" + here + "/memleak.PID/properties\n",
             "\n700\n600\nvastel.memleak.backtacetype=0\nvastel.memleak.backtacemaxnum="
             "24\nended 7"});
  EXPECT_EQ(outcome.output.find("REPORT_AT_EXIT"), std::string::npos);
}

// $! is known before the shell's child executes the controller, which executes the program. Some
// rounds delay the shell.
TEST(Run, AcceptsCommandsRightAfterItsStart) {
  const TemporaryDirectory directory;
  for (int round = 0; round < 20; ++round) {
    const Outcome on =
        Shell("cd " + directory.Path("") + " && rm -f fifo && mkfifo fifo; { " +
              (round % 4 == 0 ? "sleep 0.2; " : "") +
              "exec " MEMLEAK_PROGRAM " run --root root --log log -- " FIXTURE_SLEEPER
              " <>fifo >out; } & " MEMLEAK_PROGRAM " on $!; code=$?; kill $!; exit $code");
    EXPECT_EQ(on.code, 0) << on.output;
    ExpectHas(on.output, {": recording on, tables emptied"});
  }
}

// The reason for a failed report comes at once, and the old report is back. Other settings stay.
TEST(Session, CommandsAreAnswered) {
  const TemporaryDirectory directory;
  const Outcome outcome = WithProgram(directory, "--root root --log log", FIXTURE_SLEEPER, R"(
    printf 'other=1\nvastel.memleak.backtacemaxnum=20\n#x' >>root/properties
    $M status $P; $M report $P; rm -r root/data; $M on $P --depth 12 --unwind dwarf; $M status $P; $M pause $P; $M status $P
    cat root/properties
    D=root/data/log/reliability; mkdir -p $D; printf 'old\nEND' >$D/allocations_dump
    prlimit --pid $P --nofile=3:1024; $M report $P; echo "code $?"; cat $D/*
    prlimit --pid $P --nofile=1024:1024; mkdir $D/allocations_dump.old
    $M report $P; tail -c 3 $D/allocations_dump; echo " new"
    $M send $P --word 0x1234567800000080; cat log; $M status $$; echo "code $?"
    kill -STOP $P; for i in $(seq 200); do
      grep -L 'State:.T' /proc/$P/task/*/status | grep -q . || break; sleep 0.05; done
    $M on $P; $M status $P; kill -CONT $P)");
  ExpectHas(
      outcome.output,
      {"off (never switched on)", "recording was never on; ",
       "recording on, tables emptied, 12 frames by dwarf (", "recording   native on since ",
       "native paused since ", "other=1\n#x\n", ": Too many open files; ",
       "code 2\nold\nENDreport ", "END new\n", "carried out native clear (0x1234567800000080), ",
       "addr:0x1234567800000080", "btsize:12, btType:1", "tracked     no\ncode 1\n",
       " is stopped; continue it with kill", "tools_sleeper, stopped\n",
       "native clear (0x1234567800000080)\nroot "});
}

// Without a handler the signal would end the process. A process that ends is not signaled.
TEST(Session, ProcessesWithoutTheHandlerAreNotSignaled) {
  const Outcome outcome = Shell(R"(
    export L=)" MEMLEAK_TRACKER R"(; python3 -c 'import mmap, os, time
file = open(os.environ["L"]); map = mmap.mmap(file.fileno(), 4096, prot=1); time.sleep(60)' &
    P=$!; until grep -q $L /proc/$P/maps; do sleep 0.05; done
    for i in $P $$ 0; do )" MEMLEAK_PROGRAM R"( on $i; echo "code $?"; done
    kill $P; wait $P; echo "ended $?"; )" MEMLEAK_PROGRAM R"( on $P; echo "code $?")");
  ExpectHas(outcome.output, {"has no state file", "not loaded with the tracker", "invalid PID '0'",
                             "ended 143", "no such process"});
  EXPECT_EQ(outcome.output.find("code 0"), std::string::npos) << outcome.output;
}

// Names are matched without the directory. A library is listed by the name that loaded it.
TEST(Session, HooksThatAreImpossibleAreExplained) {
  const TemporaryDirectory directory;
  const Outcome outcome = WithProgram(directory, "--root root --log log", FIXTURE_HOOK_PROGRAM, R"(
    H='--kind mmap --lib'; $M libs $P
    $M on $P $H 'libabsent.so, /x/libtools_hook_plain.so' --unwind dwarf --depth 7; echo "code $?"
    cat root/properties; $M on $P; echo "native $?"; $M report $P --kind mmap >/dev/null
    $M on $P $H libtools_hook_plain.so --func mremap
    for l in libtools_hook_no_plt.so , tools_hook_program; do $M on $P $H $l; done
    $M on $P --lib liba.so; $M on $P --kind mmap; $M clear $P --kind sea; $M fd off $P
    $M fd fly $P; $M on $P; $M on $P $H libtools_hook_plain.so; $M fd on $P; grep received log)");
  ExpectHas(outcome.output,
            {"libtools_hook_no_plt.so  no-plt       -       -       -  no-plt   ",
             "libtools_hook_plain.so      yes       -       -       -     yes   other\n",
             "memleak: libabsent.so is not loaded in ", "memleak: ignoring --unwind dwarf",
             "): mmap recording on, tables emptied, 7 frames by frame pointers (",
             "code 0\nvastel.memleak.backtacemaxnum=7\nvastel.memleak.backtacetype=0\n"
             "persist.sys.memleak.hookLib=libtools_hook_plain.so\n"
             "persist.sys.memleak.hookFunc=mmap,munmap\n",
             "memleak: mmap recording is on in ", "native 2\n",
             "libtools_hook_plain.so does not import mremap; ",
             "libtools_hook_no_plt.so has no jump slot for mmap", "--lib names nothing; ",
             "is the program itself", "--lib and --func are for hooks", "--kind mmap needs --lib",
             "invalid --kind 'sea' (native, mmap, ion, gpu)\n", "libfdtrack.so is not loaded in ",
             "invalid ACTION 'fly' (on, off, dump, clear)\n", "memleak: native recording is on in ",
             "libfdtrack.so was not loaded in "});
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
    for by in stack library function tree callers; do $M show --by $by "$N".2; done
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
  ExpectHas(outcome.output,
            {" (p\\x1b[1m\\x7f\\xc2\\x9b\\x9b): recording on", "unknown command: p\\x1b[1m"});
}

// A user's process may name files that only root can read or write.
TEST(Session, RootUsesTheRightsOfTheProcessOwner) {
  const TemporaryDirectory directory;
  const std::string become = "setpriv --reuid=1234 --regid=1234 --clear-groups ";
  if (Shell(become + FIXTURE_SLEEPER " </dev/null").code != 7) {
    GTEST_SKIP() << "only root can become another user, who must be able to read the build tree";
  }
  const Outcome outcome =
      Shell("cd " + directory.Path("") + "; BECOME='" + become +
            "env LD_PRELOAD=" MEMLEAK_PRELOAD " " FIXTURE_SLEEPER "'; M=" MEMLEAK_PROGRAM R"(
    chmod 755 .; mkdir -m 700 secret; echo secret=1 >secret/properties; mkdir -m 777 users
    start() {  # ROOT
      mkfifo fifo; export MEMLEAK_TRACKER_ROOT=$1 MEMLEAK_TRACKER_PROPERTIES=$PWD/secret/properties
      $BECOME <fifo >out & P=$!; exec 3>fifo; until grep -qs ready out; do sleep 0.02; done
      $M on $P --depth 3; echo "code $?"; exec 3>&-; wait $P; rm fifo
    }
    start $PWD/users/root; stat -c %a:%u:%g users/root users/root/*; cat users/root/properties
    start $PWD/secret; cat secret/properties; start $PWD/new)");
  ExpectHas(outcome.output,
            {"code 0\n700:1234:1234\n600:1234:1234\n600:1234:1234\nvastel.memleak.backtacetype=",
             "maxnum=3\n", " has no state file, ", "code 2\nsecret=1\nmemleak: process "});
}

TEST(Errors, EachIsOneLineWithExitCodeTwo) {
  const TemporaryDirectory directory;
  const std::string file = directory.Write("file", "");
  // Programs of another width and machine: changes single bytes of the ELF header.
  Shell("cd " + directory.Path("") + R"(; mkdir -m 777 open; ln -s root link
    for f in narrow riscv setuid musl; do cp )" FIXTURE_SLEEPER R"( $f; done; chmod u+s setuid
    printf '\\001' | dd of=narrow bs=1 seek=4 conv=notrunc
    printf '\\363' | dd of=riscv bs=1 seek=18 conv=notrunc
    sed -i 's,/ld-linux-x86-64,/ld-musl-x86_64a,; s,/ld-linux-aarch64,/ld-musl-aarch64a,' musl
    echo hello >text; echo "#!$PWD/loop" >loop; echo '#!/no/such/shell' >orphan
    chmod +x text loop orphan)");
  const std::string program = "run -- " + directory.Path("");
  const std::string sleeper = " -- " FIXTURE_SLEEPER;
  const std::string run = "run --root ";
  const std::pair<std::string, const char*> cases[] = {
      {"", "subcommand"},
      {"on abc", "invalid PID 'abc' (process id; find it with: "},
      {"diff a b --fail-over 1.5k", "invalid --fail-over '1.5k' (bytes, such as"},
      {"watch 1 -o x --every 0s", "invalid --every '0s' (at least a second"},
      {"show x --min-size 99999999999g", "invalid --min-size '99999999999g' (bytes"},
      {"run --frobnicate -- ls", "unknown option"},
      {"run -- " FIXTURE_STATIC, "static"},
      {program + "narrow", "32-bit"},
      {program + "riscv", "another architecture"},
      {program + "setuid", "program is setuid"},
      {program + "musl", "program is for the C library musl"},
      {program + "text", "not an ELF program"},
      {program + "loop", "too many nested script interpreters"},
      {program + "orphan", "program not found: /no/such/shell"},
      {program + "file", "not executable"},
      {"run -- no-such-program", "not found in PATH"},
      {run + file + sleeper, "root directory not writable"},
      {run + directory.Path("open") + sleeper, "/open: other users may write to it; choose"},
      {run + directory.Path("link") + sleeper, "/link: it is a symbolic link; choose"},
      {run + directory.Path("root") + " --log /nonexistent/%p" + sleeper,
       "log not writable: /none"},
      {run + directory.Path("root") + " --log " + directory.Path("link") + sleeper,
       "/link: it is a symbolic link; name"},
      {"show " + file, "not a report"},
  };
  for (const auto& [arguments, part] : cases) ExpectFails(arguments, part);
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
  ExpectHas(Shell("cat " + directory.Path("old")).output, {"memleak-profile"});
  ExpectFails("export " + report + " --format json -o /dev/full", "No space left on device");
}

}  // namespace
}  // namespace memleak
