// SPDX-License-Identifier: Apache-2.0
// Commands reach tracked processes and are not sent to processes that the signal would kill.
#include "tools/target/signal_sender.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <functional>

#include "protocol/kinds.h"
#include "protocol/protocol.h"
#include "tests/control_signal.h"
#include "tools/base/user_error.h"
#include "tools/target/inspect.h"

namespace memleak {
namespace {

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
      // The signal stays pending until the child waits for it.
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

TEST(SendCommand, SendsBothWordsToPreparedProcessesOnly) {
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

TEST(SendCommand, RefusesProcessesThatHaveEnded) {
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
