// Waiting for a report that a simulated process writes at its own pace.
#include "tools/target/report_wait.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <thread>

#include "tests/temporary_directory.h"

namespace memleak {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kPause(60);

class ReportWaitTest : public testing::Test {
 protected:
  ReportWaitTest() {
    options_.path = directory_.Path("data/log/reliability/allocations_dump");
    options_.timeout = milliseconds(20000);
    options_.is_alive = [this] { return alive_.load(); };
  }
  ~ReportWaitTest() override {
    if (writer_.joinable()) writer_.join();
  }
  void MakeDirectories() const {
    std::filesystem::create_directories(std::filesystem::path(options_.path).parent_path());
  }
  void Append(const std::string& text) const {
    std::ofstream(options_.path, std::ios::app) << text;
  }
  void WriteLater(std::function<void()> write) { writer_ = std::thread(std::move(write)); }

  TemporaryDirectory directory_;
  WaitOptions options_;
  std::atomic<bool> alive_ = true;
  std::thread writer_;
};

TEST_F(ReportWaitTest, FollowsDirectoriesThatComeIntoBeing) {
  WriteLater([this] {
    for (const char* part : {"data", "data/log", "data/log/reliability"}) {
      std::this_thread::sleep_for(kPause);
      std::filesystem::create_directory(directory_.Path(part));
    }
    // Neither a frame nor a name that ends so is the end.
    for (const char* text : {"head\nsz 1 BACKEND", "END", "] \n", "END"}) {
      std::this_thread::sleep_for(kPause);
      Append(text);
    }
  });
  std::int64_t most = 0;
  options_.progress = [&](milliseconds, std::int64_t bytes) { most = std::max(most, bytes); };
  EXPECT_EQ(WaitForReport(options_), WaitResult::kComplete);
  EXPECT_TRUE(EndsComplete(options_.path));
  EXPECT_GT(most, 0);
}

TEST_F(ReportWaitTest, IsNotFooledByAnOldReport) {
  MakeDirectories();
  Append("old\nEND");
  EXPECT_EQ(MoveOldReportAside(options_.path), std::nullopt);
  EXPECT_TRUE(EndsComplete(options_.path + ".old"));
  alive_ = false;
  EXPECT_EQ(WaitForReport(options_), WaitResult::kProcessEnded);
  alive_ = true;
  options_.timeout = kPause;
  EXPECT_EQ(WaitForReport(options_), WaitResult::kTimeout);
  RestoreOldReport(options_.path);
  EXPECT_TRUE(EndsComplete(options_.path));

  // Where it cannot be moved, its state tells it from the next one.
  options_.old = StateOf(options_.path);
  EXPECT_EQ(WaitForReport(options_), WaitResult::kTimeout);
  std::ofstream(options_.path) << "newer\nEND";
  EXPECT_EQ(WaitForReport(options_), WaitResult::kComplete);
}

}  // namespace
}  // namespace memleak
