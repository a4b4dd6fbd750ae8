// The dump thread.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>

#include "fakes.h"
#include "tracker/DumpThread.h"
#include "tracker/MallocMemTrack.h"
#include "tracker/control/MemTrackControl.h"

namespace {

class DumpTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(track_initialize(&fake::Dispatch(), fake::ZygoteFlag(), ""));
    MemTrackControl::GetInstance()->ConfigHookStatus(true, true);
    fake::Reset();
  }
  void TearDown() override {
    EXPECT_TRUE(MemTrackControl::GetInstance()->ThreadEnabled());
    track_finalize();
  }
};

TEST_F(DumpTest, EachCommandWritesOneReport) {
  constexpr int kReports = 3;
  static std::atomic<int> running{0};
  static std::atomic<int> wrong{0};
  fake::OnReport([] {
    char name[16] = {};
    pthread_getname_np(pthread_self(), name, sizeof name);
    if (name != std::string("MemDumpThread") || getpriority(PRIO_PROCESS, 0) != 10) ++wrong;
    ++running;
    while (running < kReports) usleep(1000);  // all of them at once
  });
  for (int i = 0; i < kReports; ++i) AsyncReport();
  while (running < kReports) usleep(1000);
  usleep(20000);
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(fake::TakeEvents(), "Report() Report() Report()");
  {
    android::MemDumpMain starter;
    EXPECT_TRUE(starter.Enable());
    usleep(50000);  // the starter still holds the thread, which goes round its loop
  }
  usleep(20000);
  EXPECT_EQ(fake::TakeEvents(), "Report()");
}

}  // namespace
