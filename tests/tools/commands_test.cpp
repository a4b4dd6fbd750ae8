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

#include "tests/temporary_directory.h"
#include "tests/tools/shell.h"
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
  Session(const TemporaryDirectory& directory, const std::string& options,
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
  const TemporaryDirectory directory;
  Session session(directory, "--start --report-at-exit --depth 24 --unwind fp --log log.%p");
  const std::string& output = session.output();
  const std::string here = std::filesystem::canonical(directory.Path("")).string();
  for (const std::string& part :
       {std::string("argument=-x\nargument=--depth\nargument=a b\nargument=--\n"),
        std::string("LD_PRELOAD=" FIXTURE_LIBDIR "/libmemleak_preload.so\n"),
        std::string("LD_BIND_NOW=1\n"), std::string("MEMLEAK_TRACKER_START=0x10\n"),
        std::string("MEMLEAK_TRACKER_REPORT_AT_EXIT=0x40\n"),
        "MEMLEAK_TRACKER_ROOT=" + here + "/memleak.%p\n",
        "MEMLEAK_TRACKER_LOG=" + here + "/log.%p\n"}) {
    ExpectHas(output, part);
  }
  const std::string properties = here + "/memleak." + session.pid() + "/properties";
  ExpectHas(output, "MEMLEAK_TRACKER_PROPERTIES=" + properties + "\n");
  EXPECT_EQ(ReadTextFile(properties),
            "vastel.memleak.backtacetype=0\nvastel.memleak.backtacemaxnum=24\n");
  // Lines of others stay, and the last usable one counts.
  const std::string before =
      "other=1\nvastel.memleak.backtacemaxnum=20\nvastel.memleak.backtacemaxnum=12a\n#x";
  EXPECT_EQ(ParseSettings(before).depth, 20U);
  EXPECT_EQ(UpdateProperties(before, {.depth = 30, .type = std::nullopt}),
            "other=1\n#x\nvastel.memleak.backtacemaxnum=30\n");
  EXPECT_EQ(session.End(), 7);
}

// $! is known before the shell's child has become the controller, and that the program.
TEST(Run, TakesCommandsStraightAfterItsStart) {
#ifdef TEST_EMULATOR
  constexpr int kRounds = 4;
#else
  constexpr int kRounds = 20;
#endif
  const TemporaryDirectory directory;
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
  const TemporaryDirectory directory;
  const Session session(directory, "--root here",
                        "ASAN_OPTIONS=verify_asan_link_order=0 MEMLEAK_TRACKER_START=0x10 "
                        "LD_PRELOAD=libm.so.6");
  ExpectHas(session.output(), "LD_PRELOAD=" FIXTURE_LIBDIR "/libmemleak_preload.so:libm.so.6\n");
  ExpectHas(session.output(), "/here\n");
  EXPECT_FALSE(Has(session.output(), "MEMLEAK_TRACKER_START"));
}

// What the commands make a real tracker do is a matter of the end-to-end tests.
TEST(Session, SendsTheWordsAndTellsTheState) {
  const TemporaryDirectory directory;
  const Session session(directory, "--root root --log log");
  const std::string pid = session.pid();
  ExpectStatusSoon(pid, "never switched on");
  ExpectHas(Memleak("on " + pid + " --depth 12 --unwind dwarf").output,
            "recording on, tables emptied, 12 frames by dwarf");
  ExpectStatusSoon(pid, "recording   on\n");
  for (const char* command : {"on --keep ", "pause ", "clear "}) {
    EXPECT_EQ(Memleak(command + pid).code, 0);
  }
  EXPECT_EQ(Memleak("send " + pid + " --word 0x100000 --parameter 0xff0031").code, 0);
  ExpectStatusSoon(pid, "recording   paused\n");
  ExpectFails("report --timeout 1 " + pid, "no complete report after 1 s");
  EXPECT_EQ(directory.Read("log"),
            "received_sig 44;addr:0x90\nparameter 0xc0031\n"
            "received_sig 44;addr:0x10\nparameter 0xc0031\n"
            "received_sig 44;addr:0x20\nparameter 0x0\n"
            "received_sig 44;addr:0x80\nparameter 0x0\n"
            "received_sig 44;addr:0x100000\nparameter 0xff0031\n"
            "received_sig 44;addr:0x40\nparameter 0x0\n");
  std::filesystem::remove(directory.Path("log"));
  ExpectHas(Memleak("status " + pid).output, "its log cannot be read: No such file or directory)");
  EXPECT_EQ(Memleak("status " + std::to_string(getpid())).code, 1) << "not tracked";
}

TEST(Errors, EachIsOneLineWithExitCodeTwo) {
  const TemporaryDirectory directory;
  const std::string file = directory.Write("file", "");
  const std::string cut =
      directory.Write("cut", "Native Heap MemLeak Tracker Version 2.0:\nTotal memory(bytes): 1\n");
  const std::string sleeper = kRunEmulated + " -- " FIXTURE_SLEEPER;
  const std::string run = "run --libdir " FIXTURE_LIBDIR " --root ";
  const std::pair<std::string, const char*> cases[] = {
      {"", "subcommand"},
      {"fly", "unknown command: fly"},
      {"on 99999999", "no such process"},
      {"on abc", "PID is not a process id: abc"},
      {"on 1 --depth 0", "--depth is not a number of frames from 1 to 65535: 0"},
      {"report 1 --timeout -3", "--timeout is not a number of seconds: -3"},
      {"send 1 --word 0xzz", "--word"},
      {"run", "no program given"},
      {"run --frobnicate -- ls", "unknown option"},
      {"run -- " FIXTURE_STATIC, "static"},
      {"run --libdir /nonexistent" + sleeper, "--libdir"},
      {run + file + sleeper, "root directory not writable"},
      {run + directory.Path("root") + " --log /nonexistent/%p" + sleeper,
       "log not writable: /none"},
      {"show " + file, "not a report"},
      {"show " + cut, "truncated"},
  };
  for (const auto& [arguments, part] : cases) ExpectFails(arguments, part);
  EXPECT_EQ(Memleak("show --partial " + cut).code, 0);
}

}  // namespace
}  // namespace memleak
