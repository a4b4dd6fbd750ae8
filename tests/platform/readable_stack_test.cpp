// SPDX-License-Identifier: Apache-2.0
// ReadableStack against a model: an area of the address space whose pages change, and a list of the
// pages that are readable.
#include "platform/readable_stack.h"

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <random>
#include <thread>
#include <vector>

namespace {

constexpr std::uint64_t kPage = 4096;
constexpr std::size_t kPages = 24;

/// An area of pages, each readable or not.
class Area {
 public:
  Area() : readable_(kPages, false) {
    void* memory = mmap(nullptr, kPages * kPage, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    EXPECT_NE(memory, MAP_FAILED);
    start_ = reinterpret_cast<std::uint64_t>(memory);
  }

  /// Makes each page readable or not, at random.
  void Change(std::mt19937& random) {
    for (std::size_t i = 0; i < kPages; ++i) {
      readable_[i] = i + 1 < kPages && random() % 4 != 0;
      const int protection = readable_[i] ? PROT_READ | (random() % 2 == 0 ? PROT_WRITE : 0) : 0;
      ASSERT_NE(mmap(reinterpret_cast<void*>(start_ + i * kPage), kPage, protection,
                     MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0),
                MAP_FAILED);
    }
  }

  bool Readable(std::uint64_t address) const {
    return address >= start_ && address < start_ + kPages * kPage &&
           readable_[(address - start_) / kPage];
  }
  /// The expected result of ReadableStack::Holds.
  bool Holds(std::uint64_t begin, std::uint64_t address, std::uint64_t bytes) const {
    if (address < begin) return false;
    for (std::uint64_t at = begin; at < address + bytes; ++at) {
      if (!Readable(at)) return false;
    }
    return true;
  }
  std::uint64_t AnyAddress(std::mt19937& random) const {
    return start_ + random() % (kPages * kPage);
  }

 private:
  std::uint64_t start_ = 0;
  std::vector<bool> readable_;
};

/// Tests an address of the thread's own stack and addresses outside of it.
void CheckOwnStack() {
  const auto here = reinterpret_cast<std::uint64_t>(__builtin_frame_address(0));
  platform::ReadableStack stack(here);
  EXPECT_TRUE(stack.Holds(here, 16));
  EXPECT_FALSE(stack.Holds(here - 16, 16));
  EXPECT_FALSE(stack.Holds(UINT64_MAX - 7, 16));
  EXPECT_FALSE(stack.Holds(UINT64_MAX - 64, 16));
}

void CheckAll(unsigned seed) {
  std::mt19937 random(seed);
  Area area;
  for (int round = 0; round < 25; ++round) {
    area.Change(random);
    for (int i = 0; i < 20; ++i) {
      const std::uint64_t begin = area.AnyAddress(random);
      if (!area.Readable(begin)) continue;
      platform::ReadableStack stack(begin);
      for (int k = 0; k < 5; ++k) {
        const std::uint64_t address = begin + random() % (6 * kPage) - kPage / 2;
        const std::uint64_t bytes = random() % 32 + 1;
        ASSERT_EQ(stack.Holds(address, bytes), area.Holds(begin, address, bytes))
            << begin << " " << address << " " << bytes;
      }
    }
    CheckOwnStack();
  }
}

__attribute__((noinline)) void GoDeep(int pages) {
  volatile char frame[kPage] = {};
  CheckOwnStack();
  const auto first = reinterpret_cast<std::uint64_t>(&frame);
  EXPECT_TRUE(platform::ReadableStack(first).Holds(first, pages * kPage));
  if (pages < 100) GoDeep(pages + 1);
  frame[0] = frame[1];
}

TEST(ReadableStack, EndsWhereTheMappingEnds) {
  CheckAll(1);  // without caches
  platform::PrepareReadableStack();
  CheckAll(2);
  GoDeep(1);
  std::thread other([] {
    CheckAll(3);
    GoDeep(1);
    CheckAll(4);
  });
  CheckAll(5);
  other.join();
}

}  // namespace
