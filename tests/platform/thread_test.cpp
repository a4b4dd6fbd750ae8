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
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace {

using android::sp;

/// Opened once; whoever waits goes on then.
class Gate {
 public:
  void Open() {
    const std::lock_guard<std::mutex> lock(mutex_);
    open_ = true;
    changed_.notify_all();
  }
  void Wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return open_; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool open_ = false;
};

/// What a test sees of its thread, also after the object is gone.
struct Log {
  std::atomic<int> iterations{0};
  std::atomic<long> destroyed_on{0};
  Gate destroyed;
};

long ThreadId() {
  return syscall(SYS_gettid);
}

class Worker : public android::Thread {
 public:
  Worker(Log& log, std::function<bool()> iteration)
      : Thread(false), log_(log), iteration_(std::move(iteration)) {}
  ~Worker() override {
    log_.destroyed_on = ThreadId();
    log_.destroyed.Open();
  }

 private:
  bool threadLoop() override {
    ++log_.iterations;
    return iteration_();
  }

  Log& log_;
  const std::function<bool()> iteration_;
};

/// Waits until the object is gone, which may be a moment after its thread's last iteration, and on
/// that thread: what the test has lent it must last until then.
void Finish(sp<Worker>& worker, Log& log) {
  worker.clear();
  log.destroyed.Wait();
}

TEST(Thread, RunsUntilTheLoopReturnsFalse) {
  Log log;
  sp<Worker> worker(new Worker(log, [&log] { return log.iterations < 3; }));
  EXPECT_FALSE(worker->isRunning());
  EXPECT_EQ(worker->run("worker"), android::NO_ERROR);
  EXPECT_EQ(worker->join(), android::NO_ERROR);
  EXPECT_EQ(log.iterations, 3);
  EXPECT_FALSE(worker->isRunning());
  Finish(worker, log);
}

TEST(Thread, StarterMayLetGoAtOnce) {
  Log log;
  Gate released;
  std::atomic<long> ran_on{0};
  {
    // The loop asks to go on, but between two iterations nobody holds the object.
    sp<Worker> worker(new Worker(log, [&] {
      ran_on = ThreadId();
      released.Wait();
      return true;
    }));
    ASSERT_EQ(worker->run("worker", android::PRIORITY_BACKGROUND, 0), android::NO_ERROR);
  }
  EXPECT_EQ(log.destroyed_on, 0);
  released.Open();
  log.destroyed.Wait();
  EXPECT_EQ(log.iterations, 1);
  EXPECT_EQ(log.destroyed_on, ran_on);
  EXPECT_NE(log.destroyed_on, ThreadId());
}

TEST(Thread, GoesOnWhileSomebodyHoldsIt) {
  Log log;
  Gate several;
  sp<Worker> worker(new Worker(log, [&] {
    if (log.iterations == 5) several.Open();
    std::this_thread::yield();
    return true;
  }));
  ASSERT_EQ(worker->run("worker"), android::NO_ERROR);
  several.Wait();
  EXPECT_TRUE(worker->isRunning());
  EXPECT_EQ(log.destroyed_on, 0);
  Finish(worker, log);
}

TEST(Thread, ImpossibleStackIsReported) {
  Log log;
  sp<Worker> worker(new Worker(log, [] { return false; }));
  EXPECT_EQ(worker->run("worker", android::PRIORITY_DEFAULT, SIZE_MAX / 4), android::UNKNOWN_ERROR);
  EXPECT_FALSE(worker->isRunning());
  // The failed start holds nothing and hinders nothing.
  EXPECT_EQ(worker->run("worker", android::PRIORITY_DEFAULT, std::size_t{1} << 20),
            android::NO_ERROR);
  worker->join();
  EXPECT_EQ(log.iterations, 1);
  Finish(worker, log);
}

class Counted : virtual public android::RefBase {
 public:
  explicit Counted(std::atomic<int>& deaths) : deaths_(deaths) {}
  ~Counted() override { ++deaths_; }

 private:
  std::atomic<int>& deaths_;
};

TEST(RefBase, PromotionRacesWithTheLastRelease) {
  for (int round = 0; round < 200; ++round) {
    std::atomic<int> deaths{0};
    sp<Counted> strong(new Counted(deaths));
    const android::wp<Counted> weak(strong);
    std::thread promoter([&weak] {
      while (weak.promote() != nullptr) {
      }
    });
    strong.clear();
    promoter.join();
    EXPECT_EQ(deaths, 1);
  }
}

}  // namespace
