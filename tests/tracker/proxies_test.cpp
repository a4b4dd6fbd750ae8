// The proxies: what they record, and what they only forward. Whole programs show that calls get
// their arguments and results.
#include "tracker/proxies.h"

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cerrno>
#include <cstdint>

#include "fakes.h"
#include "tracker/MallocMemTrack.h"
#include "tracker/control/MemTrackControl.h"

namespace {

using Lines = std::vector<std::string>;

constexpr int kAnonymous = MAP_PRIVATE | MAP_ANONYMOUS;
template <typename Function>
Function* Proxy(const char* key) {
  return reinterpret_cast<Function*>(FindProxy(key));
}
const auto mmap64_proxy = Proxy<void*(void*, std::size_t, int, int, int, off_t)>("mmap64");
const auto mmap2_proxy = Proxy<void*(void*, std::size_t, int, int, int, std::size_t)>("__mmap2");
const auto mremap_proxy = Proxy<void*(void*, std::size_t, std::size_t, int, void*)>("mremap");
const auto munmap_proxy = Proxy<int(void*, std::size_t)>("munmap");
using Ioctl = int(int, unsigned long, void*);
const auto ion_proxy = Proxy<Ioctl>("ioctl_libdmabufheap.so");
const auto gpu_proxy = Proxy<Ioctl>("ioctl_libgsl.so");

const Lines kMapError = {"E map result error"};
const Lines kUnmapError = {"E munmap addr or size error"};
constexpr std::size_t kBig = std::size_t{3} << 32;

/// What the real functions return.
void* mapping = fake::new_block;
int result = 0;

template <typename... Arguments>
void* RealMapping(Arguments... /*arguments*/) {
  return mapping;
}
int RealMunmap(void* /*address*/, std::size_t /*length*/) {
  errno = EAGAIN;
  return result;
}
int RealIoctl(int /*fd*/, unsigned long /*request*/, void* /*argument*/) {
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
  /// Checks a call just made: its result and what it recorded.
  template <typename T>
  static void Check(T answer, T expected, const char* events, const Lines& log = {}) {
    EXPECT_EQ(answer, expected);
    EXPECT_EQ(fake::TakeEvents(), events);
    EXPECT_EQ(fake::TakeLog(), log);
  }

  MemTrackControl* control_ = nullptr;
};

TEST_F(ProxiesTest, AnonymousMappings) {
  const auto map = [](std::size_t size, int flags) {
    return mmap64_proxy(nullptr, size, 3, flags, -1, 0);
  };
  const auto map2 = [](std::size_t size) {
    return mmap2_proxy(nullptr, size, 3, kAnonymous, -1, 7);
  };
  Real(RealMapping<void*, std::size_t, int, int, int, off_t>);
  Check(map(kBig, kAnonymous), mapping, "Add(new,12884901888)");
  Check(map(4096, MAP_PRIVATE), mapping, "");
  mapping = MAP_FAILED;
  Check(map(4096, kAnonymous), MAP_FAILED, "Add(?,4096)");
  mapping = nullptr;
  Check(map(4096, kAnonymous), mapping, "", kMapError);
  Real(RealMapping<void*, std::size_t, int, int, int, std::size_t>);
  mapping = fake::new_block;
  Check(map2(4096), mapping, "Add(new,4096)");
  Check(map2(0), mapping, "", kMapError);

  Real(RealMapping<void*, std::size_t, std::size_t, int, void*>);
  Check(mremap_proxy(nullptr, 1, 2, MREMAP_MAYMOVE, nullptr), mapping, "");
  Check(mremap_proxy(nullptr, 1, 2, MAP_ANONYMOUS, nullptr), mapping, "Add(new,2)");

  Real(RealMunmap);
  result = -1;
  Check(munmap_proxy(fake::old_block, kBig), -1, "Remove(old,12884901888)");
  EXPECT_EQ(errno, EAGAIN);
  Check(munmap_proxy(nullptr, 4096), -1, "", kUnmapError);
  Check(munmap_proxy(fake::old_block, 0), -1, "", kUnmapError);
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
  Check(ion_proxy(3, 0xC0184800, &dma), 0, "Add(?,8192)");
  // A sign-extended request.
  Check(ion_proxy(3, 0xFFFFFFFFC0184800, &dma), 0, "Add(?,8192)");
  Check(ion_proxy(3, 0xC0184801, nullptr), 0, "");
  dma.len = 0;
  Check(ion_proxy(3, 0xC0184800, &dma), 0, "", kMapError);
  Check(ion_proxy(3, 0xC0184800, nullptr), 0, "", kMapError);

  auto* gpu = reinterpret_cast<std::uint64_t*>(fake::new_block);
  gpu[0] = 0;
  gpu[1] = 65536;
  result = 11;
  Check(gpu_proxy(4, 0xC0300945, gpu), 11, "Add(new,65536)");
  Check(gpu_proxy(4, 0x40200946, gpu), 11, "Remove(new,65536)");
  Check(gpu_proxy(4, 0xC0300944, gpu), 11, "");
  gpu[1] = 0;
  Check(gpu_proxy(4, 0xC0300945, gpu), 11, "", kMapError);
  Check(gpu_proxy(4, 0x40200946, nullptr), 11, "", kUnmapError);
  // A refused request is recorded like any other.
  gpu[1] = 4096;
  result = -1;
  Check(gpu_proxy(4, 0xC0300945, gpu), -1, "Add(new,4096)");
}

TEST_F(ProxiesTest, NothingIsRecordedWhilePausedOrMarked) {
  const auto map = [](std::size_t size) {
    return mmap64_proxy(nullptr, size, 3, kAnonymous, -1, 0);
  };
  Real(RealMapping<void*, std::size_t, int, int, int, off_t>);
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
