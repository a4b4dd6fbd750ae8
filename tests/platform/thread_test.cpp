// SPDX-License-Identifier: Apache-2.0
// The lifetime of libutils' thread object. The dump thread depends on it.
#include <gtest/gtest.h>
#include <unistd.h>
#include <utils/RefBase.h>
#include <utils/Thread.h>

#include <atomic>
#include <cstdint>

namespace {

using android::sp;

/// Outlives the thread object.
struct Log {
  std::atomic<bool> may_go_on{false};
  std::atomic<int> iterations{0};
  std::atomic<int> destroyed{0};
};

/// Runs until it is asked to end.
class Worker : public android::Thread {
 public:
  explicit Worker(Log& log) : Thread(false), log_(log) {}
  ~Worker() override { ++log_.destroyed; }

 private:
  bool threadLoop() override {
    ++log_.iterations;
    while (!log_.may_go_on) usleep(1000);
    return true;
  }

  Log& log_;
};

TEST(Thread, RunsUntilItsLastReferenceIsDropped) {
  Log log;
  sp<Worker> worker(new Worker(log));
  // After a failed start the thread can be started.
  EXPECT_EQ(worker->run("worker", android::PRIORITY_DEFAULT, SIZE_MAX / 4), android::UNKNOWN_ERROR);
  ASSERT_EQ(worker->run("worker", android::PRIORITY_BACKGROUND, 0), android::NO_ERROR);
  EXPECT_EQ(worker->run("worker"), android::INVALID_OPERATION);
  log.may_go_on = true;
  while (log.iterations < 3) usleep(1000);
  EXPECT_EQ(log.destroyed, 0);
  worker.clear();
  while (log.destroyed == 0) usleep(1000);
}

/// The starter drops its reference at once, before or after the thread begins.
TEST(Thread, IsDestroyedOnceInARaceWithItsStarter) {
  for (int round = 0; round < 200; ++round) {
    Log log;
    log.may_go_on = round % 2 == 0;
    sp<Worker>(new Worker(log))->run("worker", android::PRIORITY_BACKGROUND, 0);
    while (!log.may_go_on) log.may_go_on = log.iterations != 0;
    while (log.destroyed == 0) usleep(100);
    EXPECT_GE(log.iterations, 1);
    EXPECT_EQ(log.destroyed, 1);
  }
}

}  // namespace
