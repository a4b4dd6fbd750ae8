// SPDX-License-Identifier: Apache-2.0
// All of the library except its exports, in this process. Compares entries and hooked calls with a
// model of the expected records, and checks the log of each command. Reports show the records.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <filesystem>
#include <map>
#include <random>
#include <sstream>
#include <thread>
#include <utility>
#include <vector>

#include "tests/control_signal.h"
#include "tests/platform/platform_variable.h"
#include "tests/temporary_directory.h"
#include "tracker/MallocMemTrack.h"

extern "C" {
// In libraries whose calls can be hooked.
void* MapOne(std::size_t size);
int UnmapOne(void* mapping, std::size_t size);
int HeapRequest(int descriptor, unsigned long request, void* argument);
int GpuRequest(int descriptor, unsigned long request, void* argument);
}

namespace {

using Sizes = std::map<std::size_t, std::size_t>;  // blocks by size

constexpr std::size_t kTwoGiB = std::size_t{1} << 31;
constexpr std::uint32_t kParameter = 0x00200041;  // depth 32, type 'A'

int device_result = 0;

const MallocDispatch& Dispatch() {
  static MallocDispatch table = {};
  table.malloc = std::malloc;
  table.free = std::free;
  table.calloc = std::calloc;
  table.realloc = std::realloc;
  table.memalign = memalign;
  table.aligned_alloc = memalign;  // AddressSanitizer refuses sizes that are no multiple
  table.posix_memalign = posix_memalign;
  table.malloc_usable_size = [](const void* block) {
    return malloc_usable_size(const_cast<void*>(block));
  };
  table.malloc_info = [](int options, std::FILE*) { return 100 + options; };
  return table;
}

class TrackerTest : public testing::Test {
 protected:
  TrackerTest() {
    std::filesystem::create_directories(directory_.Path("data/log/reliability"));
    SetVariable("MEMLEAK_TRACKER_ROOT", directory_.Path("").c_str());
    SetVariable("MEMLEAK_TRACKER_LOG", directory_.Path("log").c_str());
  }
  void SetUp() override {
    static std::uint32_t zygote_child = 0;
    ASSERT_TRUE(track_initialize(&Dispatch(), reinterpret_cast<bool*>(&zygote_child), ""));
    // A sanitizer starts its own thread when the first thread starts.
    std::thread([] {}).join();
    // Under the emulator a joined thread may exist for a while.
    do {
      threads_ = Threads();
      usleep(5000);
    } while (Threads() != threads_);
  }
  void TearDown() override { track_finalize(); }

  static nlink_t Threads() {
    struct stat tasks = {};
    stat("/proc/self/task", &tasks);
    return tasks.st_nlink;
  }
  int Random(int limit) { return static_cast<int>(random_() % static_cast<unsigned>(limit)); }

  /// Sends a command and waits for the thread that it may start. Returns its log lines as "I text",
  /// separated by commas.
  std::string Send(std::uint64_t word, std::uint32_t parameter = kParameter) {
    const auto lines = [&] { return directory_.Read("log").substr(log_read_); };
    EXPECT_TRUE(SendControlSignal(getpid(), word, parameter));
    // A sanitizer may delay the handler until the next call into the C library.
    while (lines().find("received_sig") == std::string::npos || Threads() > threads_) usleep(500);
    std::istringstream text(lines());
    log_read_ += text.str().size();
    std::string logged;
    for (std::string line; std::getline(text, line);) {
      const std::size_t tag = line.find(" MemLeak.Native: ");
      if (tag == std::string::npos || line.find("received_sig") != std::string::npos) continue;
      if (line.find("kxlog_exception") != std::string::npos) continue;
      logged += (logged.empty() ? "" : ",") + line.substr(tag - 1, 2) + line.substr(tag + 17);
    }
    return logged;
  }

  /// The groups of the report that the command `word` writes.
  Sizes Report(std::uint64_t word) {
    const std::string name = "data/log/reliability/allocations_dump";
    std::filesystem::remove(directory_.Path(name));
    Send(word);
    for (int i = 0; i < 1000 && directory_.Read(name).find("\nEND") == std::string::npos; ++i) {
      usleep(10'000);
    }
    std::istringstream report(directory_.Read(name));
    Sizes sizes;
    for (std::string line; std::getline(report, line);) {
      std::size_t size = 0;
      std::size_t count = 0;
      if (std::sscanf(line.c_str(), "sz %zu %*u num %zu", &size, &count) == 2) sizes[size] += count;
    }
    return sizes;
  }

  const TemporaryDirectory directory_;
  nlink_t threads_ = 0;
  std::size_t log_read_ = 0;
  std::mt19937 random_{1};
};

// AddressSanitizer makes the tracker's frames larger than the walk allows: blocks have no stacks.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kHasStacks = false;
#else
constexpr bool kHasStacks = true;
#endif

bool IsRecorded(void* block) {
  std::uintptr_t frames[4];
  return track_malloc_backtrace(block, frames, 4) > 0;
}

TEST_F(TrackerTest, EntriesMatchTheModel) {
  constexpr std::size_t kSizes[] = {0, 1, 40, 100, 5000, kTwoGiB - 1, kTwoGiB, SIZE_MAX / 2};
  constexpr std::size_t kFilled = 64;  // bytes at the start of a block
  struct Block {
    char* address;
    std::size_t size;
    std::size_t recorded;  // the size in the record; 0: not recorded
  };
  std::vector<Block> blocks;
  std::size_t refused = 0;
  for (int step = 0; step < 3000 && !HasFailure(); ++step) {
    const bool recording = step % 1000 < 800;
    EXPECT_EQ(track_malloc_info(1, nullptr), step % 1000 == 0 || step % 1000 > 800 ? 101 : 0);
    if (step % 1000 == 0) {
      for (Block& block : blocks) block.recorded = 0;
      Send(0x90);
    } else if (step % 1000 == 800) {
      Sizes expected;
      for (const Block& block : blocks) {
        if (kHasStacks && block.recorded != 0) ++expected[block.recorded];
      }
      Send(0x20);
      EXPECT_EQ(Report(0x40), expected);
    }
    const int entry = Random(9);
    std::size_t size = kSizes[Random(entry == 1 ? 5 : 8)];
    // Blocks of 2 GiB are not really allocated.
    if (!recording || size == kTwoGiB - 1) size = std::min<std::size_t>(size, 5000);
    const bool odd = (entry == 3 || entry == 4) && recording && Random(8) == 0;
    const std::size_t power = std::size_t{8} << Random(4);
    const std::size_t alignment = power + (odd ? 8 * (power == 8 ? 2 : 1) : 0);
    const int error = odd ? EINVAL : size >= kTwoGiB ? ENOMEM : 0;
    void* block = nullptr;
    Block old = {};
    errno = 0;
    if (entry == 0) {
      block = track_malloc(size);
    } else if (entry == 1) {
      block = track_calloc(size, 3);
      size *= 3;
    } else if (entry == 2) {
      block = track_memalign(alignment, size);
    } else if (entry == 3) {
      block = track_aligned_alloc(alignment, size);
    } else if (entry == 4) {
      EXPECT_EQ(track_posix_memalign(&block, alignment, size), error);
      EXPECT_EQ(std::exchange(errno, error), 0);
    } else if (!blocks.empty() && (entry > 6 || size != 0 || recording)) {
      const std::size_t index = static_cast<std::size_t>(Random(static_cast<int>(blocks.size())));
      old = blocks[index];
      EXPECT_TRUE(!recording || IsRecorded(old.address) == (kHasStacks && old.recorded != 0));
      if (entry > 6) {
        track_free(old.address);
      } else {
        block = track_realloc(old.address, size);
      }
      const bool freed = entry > 6 || size == 0;
      if (freed || error == 0) blocks.erase(blocks.begin() + static_cast<std::ptrdiff_t>(index));
      if (freed) {
        EXPECT_EQ(block, nullptr);
        continue;
      }
    } else {
      continue;
    }
    EXPECT_EQ(errno, error);
    EXPECT_EQ(block == nullptr, error != 0);
    if (block == nullptr) {
      ++refused;
      continue;
    }
    EXPECT_GE(malloc_usable_size(block), size);
    if (entry >= 2 && entry <= 4) {
      EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % alignment, 0U);
    }
    char* const bytes = static_cast<char*>(block);
    EXPECT_TRUE(entry != 1 || std::string(bytes, size) == std::string(size, '\0'));
    const std::size_t kept = std::min({size, old.size, kFilled});
    EXPECT_EQ(std::string(bytes, kept), std::string(kept, 'x'));
    std::fill_n(bytes, std::min(size, kFilled), 'x');
    EXPECT_TRUE(!recording || IsRecorded(block) == kHasStacks);
    blocks.push_back({bytes, size, recording ? std::max<std::size_t>(size, 1) : 0});
  }
  EXPECT_GT(refused, 100U);
  for (const Block& block : blocks) std::free(block.address);
}

TEST_F(TrackerTest, HookedKindsMatchTheModel) {
  struct HeapBuffer {
    std::uint64_t len;
    std::uint32_t fd, flags;
    std::uint64_t heap_flags;
  } heaps[50] = {};
  struct GpuBuffer {
    std::uint64_t address, size, rest[4];
  } gpus[50] = {};
  constexpr unsigned long kHeapAllocate = 0xFFFFFFFFC0184800;  // sign-extended
  constexpr unsigned long kGpuAllocate = 0xC0300945;
  constexpr unsigned long kGpuFree = 0x40200946;
  directory_.Write("properties",
                   "persist.sys.memleak.hookLib=,libend_to_end_mapper.so,,libdmabufheap.so,"
                   "libgsl.so\npersist.sys.memleak.hookFunc=mmap,munmap,ioctl,mremap\n");
  std::vector<std::pair<void*, std::size_t>> mappings;
  for (int round = 0; round < 6 && !HasFailure(); ++round) {
    const std::uint64_t kind = 8 + 4 * static_cast<std::uint64_t>(round % 3);
    const std::string logged = Send(0x800 | std::uint64_t{1} << kind);
    EXPECT_NE(logged.find("hook to:true"), std::string::npos) << logged;
    std::map<void*, std::size_t> model;
    bool recording = true;
    for (int step = 0; step < 600; ++step) {
      const std::size_t size = static_cast<std::size_t>(Random(8)) * 4096;
      const auto add = [&](void* key, std::size_t bytes) {
        if (recording && bytes != 0) model[key] = bytes;
      };
      const auto remove = [&](void* key) {
        if (recording) model.erase(key);
      };
      const std::size_t index = static_cast<std::size_t>(Random(50));
      const int action = Random(40);
      // A request that the device refuses is recorded like any other.
      device_result = Random(4) == 0 ? -1 : 0;
      if (action == 0) {
        recording = !recording;
        Send(std::uint64_t{1} << (recording ? kind : kind + 1));
      } else if (action < 10) {
        void* mapping = MapOne(size);
        if (mapping != MAP_FAILED) mappings.emplace_back(mapping, size);
        add(mapping, size);
      } else if (action == 10) {
        add(MapOne(std::size_t{1} << 60 | 4095), 4095);  // records keep 31 bits
      } else if (action < 20 && !mappings.empty()) {
        EXPECT_EQ(UnmapOne(mappings.back().first, mappings.back().second), 0);
        remove(mappings.back().first);
        mappings.pop_back();
      } else if (action < 26) {
        heaps[index].len = size;
        EXPECT_EQ(HeapRequest(3, kHeapAllocate, &heaps[index]), device_result);
        add(&heaps[index].fd, size);
      } else if (action < 36) {
        const bool allocate = action < 32 || gpus[index].size == 0;
        if (allocate) gpus[index].size = size;
        EXPECT_EQ(GpuRequest(3, allocate ? kGpuAllocate : kGpuFree, &gpus[index]), device_result);
        allocate ? add(&gpus[index], size) : remove(&gpus[index]);
      } else {
        // Requests without a size.
        HeapRequest(3, 0xC0184801, &heaps[index]);
        HeapRequest(3, kHeapAllocate, Random(2) == 0 ? nullptr : reinterpret_cast<void*>(8));
        GpuRequest(3, Random(2) == 0 ? kGpuAllocate : kGpuFree, nullptr);
      }
    }
    Sizes expected;
    for (const auto& [key, size] : model) ++expected[size];
    EXPECT_EQ(Report(std::uint64_t{4} << kind), expected) << "round " << round;
    MapOne(4096);  // unhooked
  }
}

TEST_F(TrackerTest, CommandsRunInOrderAndSomeEndTheSignal) {
  static std::string order;
  EXPECT_FALSE(RegistryAllocateTracker(2, nullptr));
  EXPECT_FALSE(RegistryAllocateTracker(6, [] {}));
  EXPECT_TRUE(RegistryAllocateTracker(4, [] { errno = EBADF, order += "4 "; }));
  EXPECT_TRUE(RegistryAllocateTracker(5, [] { order += "5 "; }));
  const std::string on = "I set hook to:true, btsize:10, btType:0";
  const std::string missing = "E libfdtrack does not exist, fail to ";
  errno = 0;
  EXPECT_EQ(Send(0xFFFFFFFF01000009), "");
  EXPECT_EQ(Send(0x16), on);
  EXPECT_EQ(order, "4 5 ");
  EXPECT_NE(errno, EBADF) << "the interrupted thread keeps its errno";
  const auto logs = [this](std::uint64_t word, const std::string& logged) {
    std::string text = Send(word);
    for (std::size_t name; (name = text.find(":tracker_test")) != std::string::npos;) {
      text.erase(name, 13);
    }
    EXPECT_EQ(text, logged) << std::hex << word;
  };
  logs(0xB0, on + ",I set hook to:false,I native clear");
  // Without targets nothing is hooked, and the later commands are not executed.
  logs(0x1300, "");
  // File descriptors: later commands run only if a dump fails.
  logs(0xC08000, missing + "dump stack.,I ion clear");
  EXPECT_EQ(Send(0x108000).rfind("E  load libfdtrack failed: libfdtrack.so:", 0), 0U);
  // A loaded library with that name is used.
  void* library = dlopen(FDTRACK, RTLD_NOW);
  logs(0x308000, "I ion clear");
  logs(0xE08000, "");  // not cleared: the library is still loaded
  EXPECT_STREQ(static_cast<const char*>(dlsym(library, "fdtrack_calls")),
               "enable(32,65) disable disable dump ");
  logs(0x800000, "");
  logs(0x200000, missing + "disable.");
}

TEST_F(TrackerTest, CommandsAndExitWhileThreadsAllocate) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "entries call a store object that a clear has ended; it has no members";
#endif
  std::atomic<bool> done{false};
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([&done] {
      while (!done) track_free(track_realloc(track_calloc(1, 8), 9));
    });
  }
  threads_ = Threads();
  for (int i = 0; i < 100; ++i) {
    Send(std::uint64_t{0x10} << Random(i % 10 == 0 ? 4 : 2) | (i % 3 == 0 ? 0x80 : 0));
  }
  track_finalize();  // threads are still inside
  done = true;
  for (std::thread& thread : threads) thread.join();
  SetUp();
}

}  // namespace

/// The fake device. The libraries find this function before the C library's.
extern "C" __attribute__((visibility("default"))) int ioctl(int, unsigned long, ...) noexcept {
  return device_result;
}

#if defined(__SANITIZE_THREAD__)
// ThreadSanitizer does not know openat. It takes a descriptor that another thread closes and this
// one gets again for a shared one.
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_suppressions();
extern "C" const char* __tsan_default_suppressions() {
  return "race:protocol::OpenFile\n";
}
#endif
