// SPDX-License-Identifier: Apache-2.0
// Commands for the recorded kinds, against a program with a fake tracker. The script writes the
// lines that the real tracker would log.
#include <gtest/gtest.h>

#include <map>
#include <sstream>

#include "tests/temporary_directory.h"
#include "tests/tools/shell.h"
#include "tools/target/root_directory.h"

namespace memleak {
namespace {

// Runs a script while a program that has loaded the fixture's libraries runs. Returns its output.
Outcome WithHookedProgram(const TemporaryDirectory& directory, const std::string& options,
                          const std::string& script) {
  return WithProgram(directory, "--root root --log log " + options, FIXTURE_HOOK_PROGRAM, script);
}

void ExpectHas(const std::string& text, const std::string& part) {
  EXPECT_NE(text.find(part), std::string::npos) << "no \"" << part << "\" in:\n" << text;
}

TEST(Kinds, OnReportsTheTrackersAnswer) {
  const TemporaryDirectory directory;
  const Outcome outcome = WithHookedProgram(directory, "", R"(
    answer() { until grep -qs 0x900 log; do sleep 0.02; done; echo "$1" >>log; }
    answer 'set mmaphook to:true, btsize:7, btType:0' &
    $M on $P --kind mmap --lib 'libabsent.so, libtools_hook_plain.so' --unwind dwarf --depth 7
    echo "code $?"; cat root/properties; : >log
    answer 'all plt hook failed!' &
    $M on $P --kind mmap --lib libtools_hook_plain.so --func munmap,mremap; echo "code $?"
    $M on $P --kind mmap --lib libtools_hook_no_plt.so; echo "code $?")");
  ExpectHas(outcome.output, "memleak: libabsent.so is not loaded in ");
  ExpectHas(outcome.output, "memleak: ignoring --unwind dwarf");
  ExpectHas(outcome.output, "): mmap recording on, tables emptied, 7 frames by frame pointers\n");
  ExpectHas(outcome.output,
            "code 0\nvastel.memleak.backtacemaxnum=7\nvastel.memleak.backtacetype=0\n"
            "persist.sys.memleak.hookLib=libtools_hook_plain.so\n"
            "persist.sys.memleak.hookFunc=mmap,munmap\n");
  ExpectHas(outcome.output, "memleak: libtools_hook_plain.so does not import mremap; ");
  ExpectHas(outcome.output, "memleak: the tracker reports: all plt hook failed!\n");
  ExpectHas(outcome.output, "memleak: the tracker hooked nothing in ");
  ExpectHas(outcome.output, "code 2\nmemleak: libtools_hook_no_plt.so has no jump slot for mmap");
}

// Log lines of other processes do not count. Without a log, the slots would show the state.
TEST(Kinds, RefusesCommandsThatDamageOtherKinds) {
  const TemporaryDirectory directory;
  const Outcome outcome = WithHookedProgram(directory, "", R"(
    H='--kind mmap --lib libtools_hook_plain.so'
    all() { for c in on pause clear report; do $M $c $P "$@" || echo "$c $?"; done; }
    echo '1.5 1 1 I x: set mmaphook to:true' >>log
    echo 'set hook to:true' >>log; all --kind mmap; $M pause $P --kind gpu
    echo 'set hook to:false' >>log; $M on $P $H
    echo 'received_sig 44;addr:0x40' >>log; $M pause $P --kind mmap
    echo 'set mmaphook to:true' >>log; all
    $M watch $P -o out.d; $M report $P --keep-recording; $M on $P --kind mmap
    echo 'set mmaphook to:false' >>log; $M clear $P; $M send $P --word 0x80
    until grep -qs addr:0x80 log; do sleep 0.02; done; grep received log)");
  std::map<std::string, int> lines;
  std::istringstream output(outcome.output);
  for (std::string line; std::getline(output, line);) ++lines[line.substr(0, line.find(" in "))];
  EXPECT_EQ(lines["memleak: native recording is on"], 5) << outcome.output;
  EXPECT_EQ(lines["memleak: native recording is paused"], 1) << outcome.output;
  EXPECT_EQ(lines["memleak: mmap recording is on"], 6) << outcome.output;
  EXPECT_EQ(lines["memleak: mmap recording is paused"], 1) << outcome.output;
  for (const char* refused : {"on 2", "pause 2", "clear 2", "report 2"}) {
    EXPECT_EQ(lines[refused], 2) << refused;
  }
  ExpectHas(outcome.output,
            ", and a command for native memory would spoil its records; nothing was sent; first: "
            "memleak report ");
  ExpectHas(outcome.output, " --kind mmap\n");
  ExpectHas(outcome.output, "memleak: --kind mmap needs --lib");
  ExpectHas(outcome.output, "addr:0x40\nreceived_sig 44;addr:0x200\nreceived_sig 44;addr:0x80\n");
}

TEST(Kinds, EachErrorIsOneLine) {
  const TemporaryDirectory directory;
  const Outcome outcome = WithHookedProgram(directory, "", R"(
    $M clear $P --kind sea; $M fd off $P; $M fd fly $P
    (until grep -qs 0x100000 log; do sleep 0.02; done
     echo ' load libfdtrack failed: none' >>log) & $M fd on $P --depth 16; echo "code $?"
    $M on $P --lib liba.so; $M on $P --kind mmap --lib ,; $M libs $P)");
  ExpectHas(ReadTextFile(directory.Path("log")).value_or(""), "addr:0x100000\nparameter 0x10003");
  ExpectHas(outcome.output, "libfdtrack.so is not loaded in ");
  ExpectHas(outcome.output, "reports: load libfdtrack failed: none; ");
  ExpectHas(outcome.output, "invalid --kind 'sea' (native, mmap, ion, gpu)\n");
  ExpectHas(outcome.output, "invalid ACTION 'fly' (on, off, dump, clear)\n");
  ExpectHas(outcome.output, "--lib and --func are for hooks");
  ExpectHas(outcome.output, "--lib names nothing; ");
  ExpectHas(outcome.output, "libtools_hook_no_plt.so  no-plt       -       -       -  no-plt   ");
  ExpectHas(outcome.output,
            "libtools_hook_plain.so      yes       -       -       -     yes   other\n");
}

TEST(Kinds, RunStartsWithAKind) {
  const TemporaryDirectory directory;
  const Outcome outcome = WithHookedProgram(
      directory, "--start --report-at-exit --kind mmap --lib liba.so", "cat out root/properties");
  ExpectHas(outcome.output, "MEMLEAK_TRACKER_START=0x100\n");
  ExpectHas(outcome.output, "MEMLEAK_TRACKER_REPORT_AT_EXIT=0x400\n");
  ExpectHas(outcome.output, "hookFunc=mmap,mmap64,munmap,mremap\n");
  const Outcome refused =
      Shell(MEMLEAK_PROGRAM " run --libdir " FIXTURE_LIBDIR " --kind gpu -- " FIXTURE_HOOK_PROGRAM);
  ExpectHas(refused.output, "--kind needs --start or --report-at-exit");
  EXPECT_EQ(refused.code, 2);
}

}  // namespace
}  // namespace memleak
