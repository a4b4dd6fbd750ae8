// What is read from /proc, and that a process the signal would kill is left alone.
#include "tools/target/process_info.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <functional>

#include "protocol/kinds.h"
#include "protocol/protocol.h"
#include "tests/control_signal.h"
#include "tools/base/user_error.h"
#include "tools/target/inspect.h"
#include "tools/target/log_tail.h"
#include "tools/target/signal_sender.h"

namespace memleak {
namespace {

TEST(ProcText, IsReadExactly) {
  using namespace std::string_literals;
  const std::string status =
      "Name:\tsh\nState:\tS (sleeping)\nSigIgn:\tffffffffffffffff\nSigCgt:\t";
  EXPECT_TRUE(CatchesSignal(status + "0000080000000000\n", 44));
  EXPECT_FALSE(CatchesSignal(status + "fffff7ffffffffff\n", 44));
  EXPECT_FALSE(CatchesSignal("Name:\tSigCgt:\n", 44));
  EXPECT_FALSE(IsZombie(status));
  EXPECT_TRUE(IsZombie("Name:\ta\nState:\tZ (zombie)\n"));

  const std::string line = "7f00-7f10 r-xp 00000000 08:01 12   ";
  EXPECT_TRUE(MapsLibrary(line + "/a b/libt.so (deleted)\n", "libt.so"));
  EXPECT_FALSE(MapsLibrary(line + "/x/notlibt.so\n" + line + "/libt.so/other\n", "libt.so"));

  const auto environment = ParseEnvironment("A=1\0B=x=y\0broken\0A=2\0EMPTY=\0"s);
  EXPECT_EQ(environment.size(), 3U);
  EXPECT_EQ(environment.at("A"), "1");
  EXPECT_EQ(environment.at("B"), "x=y");
  EXPECT_EQ(ExpandPid("/tmp/%p/m.%p%", 42), "/tmp/42/m.42%");

  const std::string before = " S 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18";
  EXPECT_EQ(StartTicks("7 (a) R 1 (b)" + before + " 77 9\n"), 77U);
  EXPECT_EQ(StartTicks("7 (sh)" + before), std::nullopt);

  EXPECT_EQ(GuestName("qemu-aarch64\0-L\0/\0-E\0A=/b\0-strace\0/x/y/prog\0-L\0z\0"s), "prog");
  EXPECT_EQ(GuestName("qemu-aarch64\0-version\0"s), "");
  // Host and guest of an emulator number the real-time signals differently.
  EXPECT_EQ(ControlSignalFor(true, false), 46);
  EXPECT_EQ(ControlSignalFor(false, true), 42);

  const std::string on = "received_sig 44;addr:0x90\nset hook to:true, btsize:10\n";
  EXPECT_EQ(RecordingFromLog("received_sig 44;addr:0x80\n"), Recording::kNever);
  EXPECT_EQ(RecordingFromLog(on), Recording::kOn);
  EXPECT_EQ(RecordingFromLog(on + "received_sig 44;addr:0x20\nset hook to:false\n"),
            Recording::kPaused);
  EXPECT_EQ(RecordingFromLog(on + "received_sig 44;addr:0x40\n"), Recording::kStopped);
}

volatile bool received_both_words = false;

void Remember(int, siginfo_t* info, void*) {
  const protocol::Command words = protocol::ReadCommand(*info);
  received_both_words = words.word == 0x123456789abcdef0 && words.parameter == 0xa0031;
}

void CatchControlSignal() {
  struct sigaction action {};
  action.sa_sigaction = Remember;
  action.sa_flags = SA_SIGINFO;
  sigaction(protocol::control_signal, &action, nullptr);
}

void MapTracker() {
  const int file = open(FIXTURE_LIBDIR "/libmemleak_tracker.so", O_RDONLY | O_CLOEXEC);
  EXPECT_NE(mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE, file, 0), MAP_FAILED);
}

/// A forked process that prepares itself and waits for a signal; killed when the test ends.
class Child {
 public:
  explicit Child(const std::function<void()>& prepare) {
    std::array<int, 2> ready{};
    EXPECT_EQ(pipe2(ready.data(), O_CLOEXEC), 0);
    pid_ = fork();
    if (pid_ == 0) {
      // Held back until the child waits for it, else it could come before.
      sigset_t blocked;
      sigset_t before;
      sigemptyset(&blocked);
      sigaddset(&blocked, protocol::control_signal);
      sigprocmask(SIG_BLOCK, &blocked, &before);
      prepare();
      close(ready[0]);
      close(ready[1]);
      sigsuspend(&before);
      _exit(received_both_words ? 17 : 1);
    }
    close(ready[1]);
    char byte = 0;
    while (read(ready[0], &byte, 1) > 0) {
    }
    close(ready[0]);
  }
  ~Child() {
    if (pid_ <= 0) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  pid_t pid() const { return pid_; }
  bool Runs() const { return waitpid(pid_, nullptr, WNOHANG) == 0; }
  int Wait() {
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = 0;
    return status;
  }

 private:
  pid_t pid_ = 0;
};

std::string RefusalOf(pid_t pid) {
  try {
    SendCommand(RequireTracked(pid, 0), protocol::kNative.On(), 0);
  } catch (const UserError& error) {
    return error.what();
  }
  return "sent";
}

TEST(SendCommand, CarriesBothWordsToAProcessThatIsPreparedAndSparesOthers) {
  Child child([] {
    MapTracker();
    CatchControlSignal();
  });
  SendCommand(RequireTracked(child.pid(), 0), 0x123456789abcdef0, 0xa0031);
  const int status = child.Wait();
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 17);

  const Child untracked(CatchControlSignal);
  EXPECT_NE(RefusalOf(untracked.pid()).find("not loaded with the tracker"), std::string::npos);
  EXPECT_TRUE(untracked.Runs());
  const Child deaf(MapTracker);  // the signal would kill it
  EXPECT_NE(RefusalOf(deaf.pid()).find("does not catch signal 44"), std::string::npos);
  EXPECT_TRUE(deaf.Runs());
}

TEST(SendCommand, WaitsForAYoungProcessAndRefusesAnOldOneAtOnce) {
  using std::chrono::steady_clock;
  constexpr int kPatienceMs = 60'000;
  // Without a root directory the fake tracker sets no handler.
  const Child child([] {
    setenv("LD_PRELOAD", FIXTURE_LIBDIR "/libmemleak_preload.so", 1);
    execlp("sleep", "sleep", "60", nullptr);
  });
  EXPECT_THROW(RequireTracked(child.pid(), kPatienceMs), UserError);
  const auto start = steady_clock::now();
  EXPECT_THROW(RequireTracked(child.pid(), kPatienceMs), UserError);
  EXPECT_LT(steady_clock::now() - start, std::chrono::seconds(1));
  EXPECT_NE(RefusalOf(child.pid()).find("does not catch signal 44"), std::string::npos);
}

TEST(SendCommand, IsRefusedToAnotherUsersProcess) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can become another user";
  const pid_t self = getpid();
  const auto become_nobody_and_send = [self] {
    if (setgid(65534) != 0 || setuid(65534) != 0) _exit(1);
    std::fputs(RefusalOf(self).c_str(), stderr);
    _exit(0);
  };
  EXPECT_EXIT(become_nobody_and_send(), testing::ExitedWithCode(0),
              "not permitted to look at process");
}

TEST(SendCommand, KnowsProcessesThatAreGone) {
  const pid_t zombie = fork();
  if (zombie == 0) _exit(0);
  siginfo_t info;
  waitid(P_PID, static_cast<id_t>(zombie), &info, WEXITED | WNOWAIT);
  EXPECT_FALSE(IsAlive(zombie));
  EXPECT_NE(RefusalOf(zombie).find("has ended"), std::string::npos);
  waitpid(zombie, nullptr, 0);
  EXPECT_NE(RefusalOf(zombie).find("no such process"), std::string::npos);
  EXPECT_NE(RefusalOf(0).find("not a process id"), std::string::npos);
}

}  // namespace
}  // namespace memleak
