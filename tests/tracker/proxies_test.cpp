// The proxies: what they forward, and what they record.
#include "tracker/proxies.h"

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cerrno>
#include <cstdarg>
#include <cstdint>

#include "fakes.h"
#include "tracker/MallocMemTrack.h"
#include "tracker/MemTrackControl.h"

namespace {

using Lines = std::vector<std::string>;

constexpr int kAnonymous = MAP_PRIVATE | MAP_ANONYMOUS;
const Lines kMapError = {"E map result error"};
const Lines kUnmapError = {"E munmap addr or size error"};
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
  /// Checks a call just made: its result, what it recorded, and what the real function was given
  /// unless that is known.
  template <typename T>
  static void Check(T answer, T expected, const char* events, const Lines& log = {},
                    const std::string& given = seen) {
    EXPECT_EQ(answer, expected);
    EXPECT_EQ(fake::TakeEvents(), events);
    EXPECT_EQ(fake::TakeLog(), log);
    EXPECT_EQ(seen, given);
  }

  MemTrackControl* control_ = nullptr;
};

TEST_F(ProxiesTest, MappingsAreForwardedAndAnonymousOnesRecorded) {
  const auto map = [](std::size_t size, int flags) {
    return shared_proxy_mmap64(reinterpret_cast<void*>(0x7000), size, 3, flags, -1, off_t{1} << 40);
  };
  const auto map2 = [](std::size_t size) {
    return shared_proxy___mmap2(nullptr, size, 3, kAnonymous, -1, 7);
  };
  const auto remap = [](int flags) {
    return shared_proxy_mremap(reinterpret_cast<void*>(0x6000), 1, 2, flags, fake::old_block);
  };
  Real(RealMmap);
  Check(map(kBig, kAnonymous), mapping, "Add(new,12884901888)", {},
        "28672 12884901888 3 34 18446744073709551615 1099511627776 ");
  Check(map(4096, MAP_PRIVATE), mapping, "");
  Check(map2(4096), mapping, "Add(new,4096)", {}, "0 4096 3 34 18446744073709551615 7 ");
  Check(map2(0), mapping, "", kMapError);
  mapping = MAP_FAILED;
  Check(map(4096, kAnonymous), MAP_FAILED, "Add(?,4096)");
  mapping = nullptr;
  Check(map(4096, kAnonymous), mapping, "", kMapError);

  Real(RealMremap);
  mapping = fake::new_block;
  Check(remap(MREMAP_MAYMOVE), mapping, "", {},
        "24576 1 2 1 " + std::to_string(std::uintptr_t(fake::old_block)) + " ");
  Check(remap(MAP_ANONYMOUS), mapping, "Add(new,2)");

  Real(RealMunmap);
  result = -1;
  Check(shared_proxy_munmap(fake::old_block, kBig), -1, "Remove(old,12884901888)");
  EXPECT_EQ(errno, EAGAIN);
  Check(shared_proxy_munmap(nullptr, 4096), -1, "", kUnmapError);
  Check(shared_proxy_munmap(fake::old_block, 0), -1, "", kUnmapError);
}

TEST_F(ProxiesTest, DeviceRequests) {
  Real(RealIoctl);
  // Where the record's key is: events name new_block and old_block alone.
  struct {
    std::uint64_t len = 8192;
    std::uint32_t fd = 7;
    std::uint32_t flags = 0;
    std::uint64_t heap_flags = 0;
  } dma;
  Check(shared_proxy_ion_ioctl(3, 0xC0184800, &dma), 0, "Add(?,8192)", {},
        "3 3222816768 " + std::to_string(std::uintptr_t(&dma)) + " ");
  // A sign-extended request.
  Check(shared_proxy_ion_ioctl(3, 0xFFFFFFFFC0184800, &dma), 0, "Add(?,8192)");
  Check(shared_proxy_ion_ioctl(3, 0xC0184801, nullptr), 0, "");
  dma.len = 0;
  Check(shared_proxy_ion_ioctl(3, 0xC0184800, &dma), 0, "", kMapError);
  Check(shared_proxy_ion_ioctl(3, 0xC0184800, nullptr), 0, "", kMapError);

  auto* gpu = reinterpret_cast<std::uint64_t*>(fake::new_block);
  gpu[0] = 0;
  gpu[1] = 65536;
  result = 11;
  Check(shared_proxy_gpu_ioctl(4, 0xC0300945, gpu), 11, "Add(new,65536)");
  Check(shared_proxy_gpu_ioctl(4, 0x40200946, gpu), 11, "Remove(new,65536)");
  Check(shared_proxy_gpu_ioctl(4, 0xC0300944, gpu), 11, "");
  gpu[1] = 0;
  Check(shared_proxy_gpu_ioctl(4, 0xC0300945, gpu), 11, "", kMapError);
  Check(shared_proxy_gpu_ioctl(4, 0x40200946, nullptr), 11, "", kUnmapError);
  // What the kernel could not read, the proxy does not read either.
  result = -1;
  Check(shared_proxy_gpu_ioctl(4, 0xC0300945, reinterpret_cast<void*>(16)), -1, "", kMapError);
}

TEST_F(ProxiesTest, NothingIsRecordedWhilePausedOrMarked) {
  const auto map = [](std::size_t size) {
    return shared_proxy_mmap64(nullptr, size, 3, kAnonymous, -1, 0);
  };
  Real(RealMmap);
  control_->ConfigPltHookStatus(false, true);
  Check(map(0), mapping, "");
  control_->ConfigPltHookStatus(true, true);
  control_->DisablePltThread();
  Check(map(4096), mapping, "");
  EXPECT_FALSE(control_->PltThreadEnabled()) << "an outer mark stays";
  control_->EnablePltThread();
  fake::Now().in_add = [this, map] {
    EXPECT_FALSE(control_->PltThreadEnabled());
    map(64);
  };
  Check(map(4096), mapping, "Add(new,4096)");
  EXPECT_TRUE(control_->PltThreadEnabled());
}

}  // namespace
