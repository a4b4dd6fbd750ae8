// Stacks through libraries that are loaded and unloaded meanwhile, one in the place of another.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/call_stack.h"
#include "tests/platform/stack_comparison.h"

namespace {

std::vector<std::string> Libraries() {
  std::vector<std::string> paths;
  std::istringstream list(UNLOADED_LIBRARIES);
  for (std::string path; std::getline(list, path, ':');) paths.push_back(path);
  return paths;
}

void CompareFromLibrary() {
  comparison::Compare(static_cast<const arch::FrameRecord*>(__builtin_frame_address(0)));
}

/// What the loader does around every dlclose of the program.
void Unload(void* library) {
  platform::CodeIsUnloaded();
  dlclose(library);
  platform::CodeIsUnloaded();
}

TEST(UnloadedCode, FourThreadsNeverSeeTheFramesOfAnotherLibrary) {
  const char* minutes = std::getenv("UNLOADED_CODE_MINUTES");
  const auto duration =
      minutes == nullptr ? std::chrono::seconds(2) : std::chrono::seconds(60 * std::atoi(minutes));
  const auto end = std::chrono::steady_clock::now() + duration;
  comparison::Prepare();
  const std::vector<std::string> paths = Libraries();
  ASSERT_EQ(paths.size(), 8U);
  std::vector<std::thread> threads;
  for (unsigned seed = 0; seed < 4; ++seed) {
    threads.emplace_back([&paths, seed, end] {
      std::minstd_rand random(seed + 1);
      while (std::chrono::steady_clock::now() < end) {
        void* library = dlopen(paths[random() % paths.size()].c_str(), RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(library, nullptr) << dlerror();
        const auto function = reinterpret_cast<void (*)(void (*)())>(dlsym(library, "CallBack"));
        for (int call = 0; call < 3; ++call) function(CompareFromLibrary);
        Unload(library);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  const comparison::Totals totals = comparison::Result();
  EXPECT_GT(totals.places, 100U);
  EXPECT_EQ(totals.differing, 0U) << comparison::Differences();
  RecordProperty("places", std::to_string(totals.places));
}

}  // namespace
