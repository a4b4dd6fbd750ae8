// The dump thread, the heap dump and the leak-info entries.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

#include "fakes.h"
#include "tests/temporary_directory.h"
#include "tracker/DumpThread.h"
#include "tracker/MallocMemTrack.h"
#include "tracker/MemTrackControl.h"

namespace {
std::atomic<bool> thread_creation_fails{false};
}

extern "C" int __real_pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                                     void* (*start)(void*), void* argument);
// The linker sends the thread object's calls here.
extern "C" int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                                     void* (*start)(void*), void* argument) {
  if (thread_creation_fails) return EAGAIN;
  return __real_pthread_create(thread, attributes, start, argument);
}

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

  thread_creation_fails = true;
  AsyncReport();
  thread_creation_fails = false;
  EXPECT_EQ(fake::TakeLog().back(), "E cannot start MemDumpThread.");
}

TEST_F(DumpTest, HeapDumpComplainsOncePerMapping) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("dump");
  EXPECT_TRUE(track_dump_heap(path.c_str()));
  EXPECT_EQ(fake::TakeLog().at(0), "E Dumping to file: " + path + "\n");
  const std::string complaint = "Could not open /proc/self/maps\n";
  const std::string text = directory.Read("dump");
  const std::string head = "Android Native Heap Dump v1.1\n\nMAPS\n" + complaint + complaint;
  EXPECT_EQ(text.substr(0, head.size()), head);
  EXPECT_EQ(text.substr(text.size() - complaint.size() - 4), complaint + "END\n");
  EXPECT_FALSE(track_dump_heap("/no/such/directory/dump"));
  EXPECT_EQ(fake::TakeLog().at(0), "E Unable to create file: /no/such/directory/dump");
}

TEST_F(DumpTest, LeakInfo) {
  std::uint8_t* info = reinterpret_cast<std::uint8_t*>(fake::old_block);
  std::size_t sizes[4] = {1, 2, 3, 4};
  track_get_malloc_leak_info(&info, &sizes[0], &sizes[1], &sizes[2], nullptr);
  EXPECT_EQ(sizes[0], 1U);
  EXPECT_EQ(fake::TakeLog().at(0), "E get_malloc_leak_info: At least one invalid parameter.");
  EXPECT_EQ(fake::TakeEvents(), "");

  track_get_malloc_leak_info(&info, &sizes[0], &sizes[1], &sizes[2], &sizes[3]);
  EXPECT_EQ(fake::TakeEvents(), "GetInfo(0,null)*");
  EXPECT_EQ(info, nullptr);
  EXPECT_EQ(sizes[0], 99U);
  EXPECT_EQ(sizes[1] + sizes[2] + sizes[3], 0U);

  track_free_malloc_leak_info(reinterpret_cast<std::uint8_t*>(fake::old_block));
  EXPECT_EQ(fake::TakeEvents(), "free(old)") << "no record is touched";

  track_write_malloc_leak_info(nullptr);
  EXPECT_EQ(fake::TakeLog().at(0), "E write_malloc_leak_info called with a nullptr");
}

}  // namespace
