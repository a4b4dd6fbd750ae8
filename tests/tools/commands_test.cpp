// The program as people run it, against a process with a fake tracker: a whole session, the
// environment that `run` composes, and errors with their exit code.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <thread>

#include "tests/tools/temp_dir.h"
#include "tools/root_directory.h"

namespace memleak {
namespace {

#ifdef TEST_EMULATOR
// Programs of this build need an emulator; the controller then hands it to `run` too.
const std::string kPrefix = TEST_EMULATOR " ";
const std::string kRunEmulated = " --emulator '" TEST_EMULATOR "'";
#else
const std::string kPrefix;
const std::string kRunEmulated;
#endif
const std::string kMemleak = kPrefix + MEMLEAK_PROGRAM " ";

struct Outcome {
  int code = -1;
  std::string output;
};

Outcome Shell(const std::string& command) {
  Outcome outcome;
  FILE* pipe = popen((command + " 2>&1").c_str(), "re");
  std::array<char, 4096> buffer{};
  while (const std::size_t count = std::fread(buffer.data(), 1, buffer.size(), pipe)) {
    outcome.output.append(buffer.data(), count);
  }
  const int status = pclose(pipe);
  outcome.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return outcome;
}

Outcome Memleak(const std::string& arguments) {
  return Shell(kMemleak + arguments);
}

bool Has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

void ExpectHas(const std::string& text, const std::string& part) {
  EXPECT_TRUE(Has(text, part)) << "no \"" << part << "\" in:\n" << text;
}

void ExpectFails(const std::string& arguments, const std::string& part) {
  const Outcome failed = Memleak(arguments);
  EXPECT_EQ(failed.code, 2) << arguments;
  ExpectHas(failed.output, part);
  EXPECT_EQ(failed.output.find('\n'), failed.output.size() - 1) << failed.output;
}

// Commands are carried out some time after they are sent.
void ExpectStatusSoon(const std::string& pid, const std::string& part) {
  Outcome status;
  for (int attempt = 0; attempt < 100; ++attempt) {
    status = Memleak("status " + pid);
    if (Has(status.output, part)) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  ExpectHas(status.output, part);
}

/// The sleeper, started by `memleak run`; its output until "ready" is kept.
class Session {
 public:
  Session(const TempDir& directory, const std::string& options,
          const std::string& environment = "") {
    std::array<int, 2> input{};
    std::array<int, 2> output{};
    EXPECT_EQ(pipe2(input.data(), O_CLOEXEC), 0);
    EXPECT_EQ(pipe2(output.data(), O_CLOEXEC), 0);
    const std::string command = "cd " + directory.Path("") + " && " + environment + " exec " +
                                kMemleak + "run --libdir " FIXTURE_LIBDIR + kRunEmulated + " " +
                                options + " -- " FIXTURE_SLEEPER " -x --depth 'a b' --";
    pid_ = fork();
    if (pid_ == 0) {
      dup2(input[0], STDIN_FILENO);
      dup2(output[1], STDOUT_FILENO);
      execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
      _exit(127);
    }
    close(input[0]);
    close(output[1]);
    input_ = input[1];
    std::array<char, 4096> buffer{};
    ssize_t count = 0;
    while (!Has(output_, "ready\n") &&
           (count = read(output[0], buffer.data(), buffer.size())) > 0) {
      output_.append(buffer.data(), static_cast<std::size_t>(count));
    }
    close(output[0]);
  }
  ~Session() {
    if (pid_ != 0) End();
  }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  std::string pid() const { return std::to_string(pid_); }
  const std::string& output() const { return output_; }
  /// Ends the program and returns its exit code.
  int End() {
    close(input_);
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = 0;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  pid_t pid_ = 0;
  int input_ = -1;
  std::string output_;
};

TEST(Run, ComposesTheEnvironmentAndBecomesTheProgram) {
  const TempDir directory;
  Session session(directory, "--start --report-at-exit --depth 24 --unwind fp --log log.%p");
  const std::string& output = session.output();
  const std::string here = std::filesystem::canonical(directory.Path("")).string();
  ExpectHas(output, "argument=-x\nargument=--depth\nargument=a b\nargument=--\n");
  ExpectHas(output, "LD_PRELOAD=" FIXTURE_LIBDIR "/libmemleak_preload.so\n");
  ExpectHas(output, "LD_BIND_NOW=1\n");
  ExpectHas(output, "MEMLEAK_TRACKER_ROOT=" + here + "/memleak.%p\n");
  const std::string properties = here + "/memleak." + session.pid() + "/properties";
  ExpectHas(output, "MEMLEAK_TRACKER_PROPERTIES=" + properties + "\n");
  ExpectHas(output, "MEMLEAK_TRACKER_START=0x10\n");
  ExpectHas(output, "MEMLEAK_TRACKER_REPORT_AT_EXIT=0x40\n");
  ExpectHas(output, "MEMLEAK_TRACKER_LOG=" + here + "/log.%p\n");
  const BacktraceSettings settings = ParseSettings(ReadTextFile(properties).value_or(""));
  EXPECT_EQ(settings.type, '0');
  EXPECT_EQ(settings.depth, 24U);
  EXPECT_EQ(session.End(), 7);
}

// $! is known before the shell's child has become the controller, and that the program.
TEST(Run, TakesCommandsStraightAfterItsStart) {
#ifdef TEST_EMULATOR
  constexpr int kRounds = 4;
#else
  constexpr int kRounds = 20;
#endif
  const TempDir directory;
  const std::string start = "exec " + kMemleak + "run --libdir " FIXTURE_LIBDIR + kRunEmulated +
                            " --root root --log log -- " FIXTURE_SLEEPER " <>fifo >out";
  for (int round = 0; round < kRounds; ++round) {
    // Now and then the child stays a shell for a while.
    const std::string delay = round % 4 == 0 ? "sleep 0.2; " : "";
    std::string script = "cd " + directory.Path("") + " && rm -f fifo && mkfifo fifo; { ";
    script.append(delay).append(start).append("; } & ").append(kMemleak);
    const Outcome on = Shell(script.append("on $!; code=$?; kill $!; exit $code"));
    EXPECT_EQ(on.code, 0) << on.output;
    ExpectHas(on.output, ": recording on, tables emptied");
  }
}

TEST(Run, KeepsOtherPreloadsAndDropsInheritedCommands) {
#ifdef TEST_EMULATOR
  GTEST_SKIP() << "the guest's list of preloads is its own";
#endif
  const TempDir directory;
  const Session session(directory, "--root here",
                        "ASAN_OPTIONS=verify_asan_link_order=0 MEMLEAK_TRACKER_START=0x10 "
                        "LD_PRELOAD=libm.so.6");
  ExpectHas(session.output(), "LD_PRELOAD=" FIXTURE_LIBDIR "/libmemleak_preload.so:libm.so.6\n");
  ExpectHas(session.output(), "/here\n");
  EXPECT_FALSE(Has(session.output(), "MEMLEAK_TRACKER_START"));
}

TEST(Session, FromOnToShow) {
  const TempDir directory;
  const Session session(directory, "--root root --log log");
  const std::string pid = session.pid();
  ExpectStatusSoon(pid, "never switched on");
  const Outcome on = Memleak("on " + pid + " --depth 12 --unwind dwarf");
  EXPECT_EQ(on.code, 0);
  ExpectHas(on.output, "recording on, tables emptied, 12 frames by dwarf");
  ExpectStatusSoon(pid, "recording   on\n");
  EXPECT_EQ(Memleak("on " + pid + " --keep").code, 0);
  EXPECT_EQ(Memleak("pause " + pid).code, 0);
  EXPECT_EQ(Memleak("clear " + pid).code, 0);
  EXPECT_EQ(Memleak("send " + pid + " --word 0x100000 --parameter 0xff0031").code, 0);
  ExpectStatusSoon(pid, "recording   paused\n");

  for (int round = 0; round < 2; ++round) {
    const Outcome report = Memleak("report " + pid);
    EXPECT_EQ(report.code, 0);
    ExpectHas(report.output, "groups  1\n");
    ExpectHas(report.output, "bytes   96 (96 B)\n");
  }
  const Outcome show = Memleak("show " + directory.Path("root"));
  EXPECT_EQ(show.code, 0);
  ExpectHas(show.output, "#1  96 B  100.0 %  3 blocks of 32 B  age 3s..1s\n     lib.so+0x10\n");
  EXPECT_TRUE(
      std::filesystem::exists(directory.Path("root/data/log/reliability/allocations_dump.old")));

  std::string words;
  const std::string log = ReadTextFile(directory.Path("log")).value_or("");
  for (std::size_t at = log.find("addr:"); at != std::string::npos;
       at = log.find("addr:", at + 1)) {
    words += log.substr(at + 5, log.find('\n', at) - at - 5) + " ";
  }
  EXPECT_EQ(words, "0x90 0x10 0x20 0x80 0x100000 0x40 0x40 ");
  ExpectHas(log, "addr:0x90\nparameter 0xc0031\n");
  ExpectHas(log, "addr:0x100000\nparameter 0xff0031\n");
}

TEST(Errors, EachIsOneLineWithExitCodeTwo) {
  const TempDir directory;
  ExpectFails("", "subcommand");
  ExpectFails("fly", "unknown command: fly");
  ExpectFails("on 99999999", "no such process");
  ExpectFails("on abc", "PID is not a process id: abc");
  ExpectFails("on 0", "PID is not a process id: 0");
  ExpectFails("on 1 --depth 0", "--depth is not a number of frames from 1 to 65535: 0");
  ExpectFails("report 1 --timeout -3", "--timeout is not a number of seconds: -3");
  ExpectFails("show --top x y", "--top is not a number of groups: x");
  ExpectFails("send 1 --word 0xzz", "--word");
  ExpectFails("run", "no program given");
  ExpectFails("run --frobnicate -- ls", "unknown option");
  ExpectFails("run -- " FIXTURE_STATIC, "static");
  ExpectFails("run --libdir /nonexistent" + kRunEmulated + " -- " FIXTURE_SLEEPER, "--libdir");
  const std::string file = directory.Write("file", "");
  ExpectFails(
      "run --libdir " FIXTURE_LIBDIR " --root " + file + kRunEmulated + " -- " FIXTURE_SLEEPER,
      "root directory not writable");
  ExpectFails("run --libdir " FIXTURE_LIBDIR " --root " + directory.Path("root") +
                  " --log /nonexistent/%p" + kRunEmulated + " -- " FIXTURE_SLEEPER,
              "log not writable: /nonexistent/");
#ifdef FIXTURE_ARM64_SYMBOLS
  ExpectFails("run --emulator qemu-aarch64 -- " FIXTURE_SLEEPER, "another architecture");
#endif
  ExpectFails("show " + file, "not a report");
  ExpectFails("show " + directory.Path("absent"), "No such file or directory; check the path");
  const std::string cut =
      directory.Write("cut", "Native Heap MemLeak Tracker Version 2.0:\nTotal memory(bytes): 1\n");
  ExpectFails("show " + cut, "truncated");
  EXPECT_EQ(Memleak("show --partial " + cut).code, 0);
}

TEST(Errors, MissingLibrariesInABuildTreeNameThePreset) {
  const TempDir directory;
  std::filesystem::create_directory(directory.Path("bin"));
  std::filesystem::copy_file(MEMLEAK_PROGRAM, directory.Path("bin/memleak"));
  const std::string run =
      kPrefix + directory.Path("bin/memleak run") + kRunEmulated + " -- " FIXTURE_SLEEPER;
  ExpectHas(Shell(run).output, "say where they are with --libdir DIR\n");
  directory.Write("CMakeCache.txt", "");
#ifdef TEST_EMULATOR
  ExpectHas(Shell(run).output, "cmake --preset aarch64 && cmake --build --preset aarch64\n");
#else
  ExpectHas(Shell(run).output, "cmake --build --preset ");
#endif
}

TEST(Errors, ReportThatDoesNotCome) {
  const TempDir directory;
  const Session session(directory, "--root mute");
  ExpectFails("report --timeout 1 " + session.pid(), "no complete report after 1 s");
}

TEST(Status, TellsNoLogFromAnUnreadableOne) {
  const TempDir directory;
  const Session without(directory, "--root root --start", "MEMLEAK_TRACKER_LOG=");
  ExpectHas(Memleak("status " + without.pid()).output, "started (no log; memleak run --log");
  const Session with(directory, "--root root --log log");
  ExpectStatusSoon(with.pid(), "never switched on");
  std::filesystem::remove(directory.Path("log"));
  const Outcome status = Memleak("status " + with.pid());
  ExpectHas(status.output, "its log cannot be read: No such file or directory)");
  ExpectHas(status.output, " (tools_sleeper), ");
  EXPECT_EQ(status.code, 0);
}

TEST(Status, SaysWhenAProcessIsLoadedButDeafToCommands) {
#ifdef TEST_EMULATOR
  GTEST_SKIP() << "the emulator catches every real-time signal itself";
#endif
  const TempDir directory;
  // Without a root the fake tracker sets no handler.
  const Outcome status = Shell("cd " + directory.Path("") +
                               " && mkfifo fifo && { exec env LD_PRELOAD=" FIXTURE_LIBDIR
                               "/libmemleak_preload.so " FIXTURE_SLEEPER
                               " <>fifo >out & }; "
                               "until grep -qs ready out; do sleep 0.02; done; " +
                               kMemleak + "status $!; code=$?; kill $!; exit $code");
  EXPECT_EQ(status.code, 1);
  ExpectHas(status.output, "loaded, but signal 44 is not caught");
}

TEST(Status, SaysWhenAProcessIsNotTracked) {
  const Outcome outcome = Memleak("status " + std::to_string(getpid()));
  EXPECT_EQ(outcome.code, 1);
  ExpectHas(outcome.output, "tracked     no\n");
}

TEST(Help, EveryCommandHasExamplesAndExitCodesInEightyColumns) {
  for (const std::string command :
       {"", "run", "on", "pause", "report", "clear", "send", "status", "show"}) {
    const Outcome help = Memleak(command + " --help");
    EXPECT_EQ(help.code, 0);
    ExpectHas(help.output, "Exit codes:");
    ExpectHas(help.output, "  memleak " + command);
    EXPECT_EQ(Shell(kMemleak + command + " --help | awk 'length > 80'").output, "");
  }
}

}  // namespace
}  // namespace memleak
