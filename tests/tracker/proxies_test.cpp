// The proxies: what they forward, and what they record.
#include "tracker/proxies.h"

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cerrno>
#include <cstdarg>
#include <cstdint>

#include "fakes.h"
#include "hook_fakes.h"
#include "tracker/MallocMemTrack.h"
#include "tracker/MemTrackControl.h"

namespace {

using Lines = std::vector<std::string>;

constexpr int kAnonymous = MAP_PRIVATE | MAP_ANONYMOUS;
constexpr std::size_t kBig = std::size_t{3} << 32;

/// What the real functions were given, and what they return.
std::string seen;
void* mapping = fake::new_block;
int result = 0;

template <typename... Arguments>
void See(Arguments... arguments) {
  seen.clear();
  ((seen += std::to_string(std::uintptr_t(arguments)) + " "), ...);
}

void* RealMmap(void* address, std::size_t length, int protection, int flags, int fd, off_t offset) {
  See(address, length, protection, flags, fd, offset);
  return mapping;
}
void* RealMremap(void* old, std::size_t old_size, std::size_t size, int flags, void* address) {
  See(old, old_size, size, flags, address);
  return mapping;
}
int RealMunmap(void* address, std::size_t length) {
  See(address, length);
  errno = EAGAIN;
  return result;
}
int RealIoctl(int fd, unsigned long request, void* argument) {
  See(fd, request, argument);
  if (result == -1) errno = EFAULT;
  return result;
}

class ProxiesTest : public testing::Test {
 protected:
  void SetUp() override {
    fake::Hooks() = {};
    ASSERT_TRUE(track_initialize(&fake::Dispatch(), fake::ZygoteFlag(), ""));
    control_ = MemTrackControl::GetInstance();
    control_->ConfigPltHookStatus(true, true);
    fake::Reset();
    mapping = fake::new_block;
    result = 0;
  }
  void TearDown() override { track_finalize(); }

  template <typename Function>
  static void Real(Function* function) {
    fake::Hooks().previous = reinterpret_cast<void*>(function);
  }
  /// Events and log lines of the call just made.
  static void Expect(const char* events, const Lines& log = {}) {
    EXPECT_EQ(fake::TakeEvents(), events);
    EXPECT_EQ(fake::TakeLog(), log);
  }

  MemTrackControl* control_ = nullptr;
};

TEST_F(ProxiesTest, MappingsAreForwardedAndAnonymousOnesRecorded) {
  const Lines error = {"E map result error"};
  Real(RealMmap);
  auto* hint = reinterpret_cast<void*>(0x7000);
  EXPECT_EQ(shared_proxy_mmap64(hint, kBig, 3, kAnonymous, -1, off_t{1} << 40), mapping);
  EXPECT_EQ(seen, "28672 12884901888 3 34 18446744073709551615 1099511627776 ");
  Expect("Add(new,12884901888)");
  EXPECT_EQ(shared_proxy_mmap64(hint, 4096, 3, MAP_PRIVATE, 5, 0), mapping);
  Expect("");
  EXPECT_EQ(shared_proxy___mmap2(nullptr, 4096, 3, kAnonymous, -1, 7), mapping);
  EXPECT_EQ(seen, "0 4096 3 34 18446744073709551615 7 ");
  Expect("Add(new,4096)");
  shared_proxy___mmap2(nullptr, 0, 3, kAnonymous, -1, 7);
  Expect("", error);
  mapping = MAP_FAILED;
  EXPECT_EQ(shared_proxy_mmap64(nullptr, 4096, 3, kAnonymous, -1, 0), MAP_FAILED);
  Expect("Add(?,4096)");
  mapping = nullptr;
  EXPECT_EQ(shared_proxy_mmap64(nullptr, 4096, 3, kAnonymous, -1, 0), nullptr);
  Expect("", error);

  Real(RealMremap);
  mapping = fake::new_block;
  EXPECT_EQ(shared_proxy_mremap(fake::old_block, 1, 2, MREMAP_MAYMOVE, hint), mapping);
  EXPECT_EQ(seen, std::to_string(std::uintptr_t(fake::old_block)) + " 1 2 1 28672 ");
  Expect("");
  shared_proxy_mremap(fake::old_block, 1, 2, MAP_ANONYMOUS, nullptr);
  Expect("Add(new,2)");

  Real(RealMunmap);
  result = -1;
  EXPECT_EQ(shared_proxy_munmap(fake::old_block, kBig), -1);
  EXPECT_EQ(errno, EAGAIN);
  Expect("Remove(old,12884901888)");
  const Lines bad = {"E munmap addr or size error"};
  EXPECT_EQ(shared_proxy_munmap(nullptr, 4096), -1);
  Expect("", bad);
  EXPECT_EQ(shared_proxy_munmap(fake::old_block, 0), -1);
  Expect("", bad);
}

TEST_F(ProxiesTest, DeviceRequests) {
  const Lines map_error = {"E map result error"};
  const Lines unmap_error = {"E munmap addr or size error"};
  Real(RealIoctl);
  // Where the record's key is: events name new_block and old_block alone.
  struct {
    std::uint64_t len = 8192;
    std::uint32_t fd = 7;
    std::uint32_t flags = 0;
    std::uint64_t heap_flags = 0;
  } dma;
  EXPECT_EQ(shared_proxy_ion_ioctl(3, 0xC0184800, &dma), 0);
  EXPECT_EQ(seen, "3 3222816768 " + std::to_string(std::uintptr_t(&dma)) + " ");
  Expect("Add(?,8192)");
  EXPECT_EQ(shared_proxy_ion_ioctl(3, 0xFFFFFFFFC0184800, &dma), 0) << "a sign-extended request";
  Expect("Add(?,8192)");
  EXPECT_EQ(shared_proxy_ion_ioctl(3, 0xC0184801, nullptr), 0);
  Expect("");
  dma.len = 0;
  shared_proxy_ion_ioctl(3, 0xC0184800, &dma);
  Expect("", map_error);
  shared_proxy_ion_ioctl(3, 0xC0184800, nullptr);
  Expect("", map_error);

  auto* gpu = reinterpret_cast<std::uint64_t*>(fake::new_block);
  gpu[0] = 0;
  gpu[1] = 65536;
  result = 11;
  EXPECT_EQ(shared_proxy_gpu_ioctl(4, 0xC0300945, gpu), 11);
  Expect("Add(new,65536)");
  EXPECT_EQ(shared_proxy_gpu_ioctl(4, 0x40200946, gpu), 11);
  Expect("Remove(new,65536)");
  shared_proxy_gpu_ioctl(4, 0xC0300944, gpu);
  Expect("");
  gpu[1] = 0;
  shared_proxy_gpu_ioctl(4, 0xC0300945, gpu);
  Expect("", map_error);
  shared_proxy_gpu_ioctl(4, 0x40200946, nullptr);
  Expect("", unmap_error);
  // What the kernel could not read, the proxy does not read either.
  result = -1;
  EXPECT_EQ(shared_proxy_gpu_ioctl(4, 0xC0300945, reinterpret_cast<void*>(16)), -1);
  Expect("", map_error);
}

TEST_F(ProxiesTest, NothingIsRecordedWhilePausedOrMarked) {
  Real(RealMmap);
  control_->ConfigPltHookStatus(false, true);
  EXPECT_EQ(shared_proxy_mmap64(nullptr, 0, 3, kAnonymous, -1, 0), mapping);
  Expect("");
  control_->ConfigPltHookStatus(true, true);
  control_->DisablePltThread();
  EXPECT_EQ(shared_proxy_mmap64(nullptr, 4096, 3, kAnonymous, -1, 0), mapping);
  Expect("");
  EXPECT_FALSE(control_->PltThreadEnabled()) << "an outer mark stays";
  control_->EnablePltThread();
  fake::Now().in_add = [this] {
    EXPECT_FALSE(control_->PltThreadEnabled());
    shared_proxy_mmap64(nullptr, 64, 3, kAnonymous, -1, 0);
  };
  shared_proxy_mmap64(nullptr, 4096, 3, kAnonymous, -1, 0);
  Expect("Add(new,4096)");
  EXPECT_TRUE(control_->PltThreadEnabled());
}

}  // namespace
