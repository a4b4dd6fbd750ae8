// The contract of the platform's thread object.
//
// Built twice: against the stand-in in this tree and, where it is installed, against the library
// that the stand-in stands in for, so it uses only what both have.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <utils/RefBase.h>
#include <utils/Thread.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
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
  Worker(Log& log, std::function<bool(Worker&)> iteration)
      : Thread(false), log_(log), iteration_(std::move(iteration)) {}
  ~Worker() override {
    log_.destroyed_on = ThreadId();
    log_.destroyed.Open();
  }

  using Thread::exitPending;
  android::status_t ready = android::NO_ERROR;

 private:
  android::status_t readyToRun() override { return ready; }
  bool threadLoop() override {
    ++log_.iterations;
    return iteration_(*this);
  }

  Log& log_;
  const std::function<bool(Worker&)> iteration_;
};

/// Waits until the object is gone, which may be a moment after its thread's last iteration, and on
/// that thread: what the test has lent it must last until then.
void Finish(sp<Worker>& worker, Log& log) {
  worker.clear();
  log.destroyed.Wait();
}

TEST(Thread, RunsUntilTheLoopReturnsFalse) {
  Log log;
  sp<Worker> worker(new Worker(log, [&log](Worker&) { return log.iterations < 3; }));
  EXPECT_FALSE(worker->isRunning());
  EXPECT_EQ(worker->run("worker"), android::NO_ERROR);
  EXPECT_EQ(worker->join(), android::NO_ERROR);
  EXPECT_EQ(log.iterations, 3);
  EXPECT_FALSE(worker->isRunning());
  // An ended thread may be started again.
  EXPECT_EQ(worker->run("worker"), android::NO_ERROR);
  worker->join();
  EXPECT_EQ(log.iterations, 4);
  Finish(worker, log);
}

TEST(Thread, StarterMayLetGoAtOnce) {
  Log log;
  Gate released;
  std::atomic<long> ran_on{0};
  {
    // The loop asks to go on, but between two iterations nobody holds the object.
    sp<Worker> worker(new Worker(log, [&](Worker&) {
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
  sp<Worker> worker(new Worker(log, [&](Worker&) {
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

TEST(Thread, EndsWhenExitIsRequested) {
  Log log;
  Gate started;
  sp<Worker> worker(new Worker(log, [&](Worker& self) {
    started.Open();
    while (!self.exitPending()) std::this_thread::yield();
    return true;
  }));
  ASSERT_EQ(worker->run("worker"), android::NO_ERROR);
  started.Wait();
  EXPECT_EQ(worker->requestExitAndWait(), android::NO_ERROR);
  EXPECT_EQ(log.iterations, 1);
  EXPECT_FALSE(worker->isRunning());
  Finish(worker, log);
}

TEST(Thread, ReportsWhatCannotBe) {
  Log log;
  Gate go;
  std::atomic<int> own_join{0};
  std::atomic<int> own_exit{0};
  sp<Worker> worker(new Worker(log, [&](Worker& self) {
    go.Wait();
    own_join = self.join();
    own_exit = self.requestExitAndWait();
    return false;
  }));
  ASSERT_EQ(worker->run("worker"), android::NO_ERROR);
  EXPECT_EQ(worker->run("worker"), android::INVALID_OPERATION);
  go.Open();
  worker->join();
  EXPECT_EQ(own_join, android::WOULD_BLOCK);
  EXPECT_EQ(own_exit, android::WOULD_BLOCK);
  EXPECT_EQ(log.iterations, 1);
  Finish(worker, log);
}

TEST(Thread, NotReadyMeansNoIteration) {
  Log log;
  sp<Worker> worker(new Worker(log, [](Worker&) { return true; }));
  worker->ready = -12;
  ASSERT_EQ(worker->run("worker"), android::NO_ERROR);
  EXPECT_EQ(worker->join(), -12);
  EXPECT_EQ(log.iterations, 0);
  Finish(worker, log);
}

TEST(Thread, ImpossibleStackIsReported) {
  Log log;
  sp<Worker> worker(new Worker(log, [](Worker&) { return false; }));
  EXPECT_EQ(worker->run("worker", android::PRIORITY_DEFAULT, SIZE_MAX / 4), android::UNKNOWN_ERROR);
  EXPECT_FALSE(worker->isRunning());
  // The failed start holds nothing and hinders nothing.
  EXPECT_EQ(worker->run("worker", android::PRIORITY_DEFAULT, std::size_t{1} << 20),
            android::NO_ERROR);
  worker->join();
  EXPECT_EQ(log.iterations, 1);
  Finish(worker, log);
}

TEST(Thread, HasTheNameAndNiceValueItWasGiven) {
#if defined(AGAINST_LIBUTILS)
  GTEST_SKIP() << "Off the device that library leaves a thread's name and nice value alone.";
#endif
  Log log;
  std::string name;
  int nice_value = 0;
  sp<Worker> worker(new Worker(log, [&](Worker&) {
    char text[32] = {};
    pthread_getname_np(pthread_self(), text, sizeof(text));
    name = text;
    nice_value = getpriority(PRIO_PROCESS, static_cast<id_t>(ThreadId()));
    return false;
  }));
  ASSERT_EQ(worker->run("MemDumpThread", android::PRIORITY_BACKGROUND, 0), android::NO_ERROR);
  worker->join();
  EXPECT_EQ(name, "MemDumpThread");
  EXPECT_EQ(nice_value, 10);
  EXPECT_EQ(getpriority(PRIO_PROCESS, static_cast<id_t>(ThreadId())), 0);
  ASSERT_EQ(worker->run("a name of twenty-six bytes"), android::NO_ERROR);
  worker->join();
  EXPECT_EQ(name, "a name of twent");
  Finish(worker, log);
}

}  // namespace
