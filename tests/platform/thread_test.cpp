// What the dump thread relies on: the lifetime of the platform's thread object.
//
// Built twice: against the stand-in in this tree and, where it is installed, against the library
// that the stand-in stands in for, so it uses only what both have.
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <utils/RefBase.h>
#include <utils/Thread.h>

#include <atomic>
#include <cstdint>
#include <thread>

namespace {

using android::sp;

/// What a test sees of its thread, also after the object is gone.
struct Log {
  std::atomic<bool> may_go_on{false};
  std::atomic<int> iterations{0};
  std::atomic<long> ran_on{0};
  std::atomic<long> destroyed_on{0};
};

/// Asks to go on for ever.
class Worker : public android::Thread {
 public:
  explicit Worker(Log& log) : Thread(false), log_(log) {}
  ~Worker() override { log_.destroyed_on = syscall(SYS_gettid); }

 private:
  bool threadLoop() override {
    log_.ran_on = syscall(SYS_gettid);
    ++log_.iterations;
    while (!log_.may_go_on) usleep(1000);
    return true;
  }

  Log& log_;
};

TEST(Thread, EndsOnItsOwnThreadOnceNobodyHoldsIt) {
  Log log;
  sp<Worker> worker(new Worker(log));
  // A failed start holds nothing and hinders nothing.
  EXPECT_EQ(worker->run("worker", android::PRIORITY_DEFAULT, SIZE_MAX / 4), android::UNKNOWN_ERROR);
  ASSERT_EQ(worker->run("worker", android::PRIORITY_BACKGROUND, 0), android::NO_ERROR);
  EXPECT_EQ(worker->run("worker"), android::INVALID_OPERATION);
  log.may_go_on = true;
  while (log.iterations < 3) usleep(1000);  // held: it goes round
  EXPECT_EQ(log.destroyed_on, 0);
  worker.clear();
  while (log.destroyed_on == 0) usleep(1000);
}

TEST(Thread, StarterMayLetGoAtOnce) {
  Log log;
  sp<Worker>(new Worker(log))->run("worker", android::PRIORITY_BACKGROUND, 0);
  while (log.iterations == 0) usleep(1000);
  EXPECT_EQ(log.destroyed_on, 0);
  log.may_go_on = true;
  while (log.destroyed_on == 0) usleep(1000);
  EXPECT_EQ(log.iterations, 1);
  EXPECT_EQ(log.destroyed_on, log.ran_on);
}

TEST(RefBase, PromotionRacesWithTheLastRelease) {
  for (int round = 0; round < 200; ++round) {
    Log log;
    log.may_go_on = true;
    sp<Worker> strong(new Worker(log));
    const android::wp<Worker> weak(strong);
    std::thread promoter([&weak] {
      while (weak.promote() != nullptr) {
      }
    });
    strong.clear();
    promoter.join();
    EXPECT_NE(log.destroyed_on, 0);
  }
}

}  // namespace
