// The unwinder: a known call chain, its limit, the frames that are dropped, many threads and forks.
#include <dlfcn.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>
#include <unwindstack/Unwinder.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <thread>

// Chains of known functions: exported, so that dladdr can name them, and never folded or inlined.
#define CHAIN_FUNCTION extern "C" __attribute__((visibility("default"), noinline, noclone))
#define KEEP_FRAME __asm__ volatile("")

namespace {

struct Request {
  std::size_t limit = 64;
  const std::vector<std::string>* skip = nullptr;
  std::vector<std::uint64_t> pcs;
};

unwindstack::LocalUpdatableMaps& Maps() {
  static unwindstack::LocalUpdatableMaps maps;
  static const bool parsed = maps.Parse();
  EXPECT_TRUE(parsed);
  return maps;
}

std::vector<std::string> Functions(const Request& request) {
  std::vector<std::string> names;
  for (const std::uint64_t pc : request.pcs) {
    Dl_info info{};
    dladdr(reinterpret_cast<void*>(pc), &info);
    names.emplace_back(info.dli_sname == nullptr ? "?" : info.dli_sname);
  }
  return names;
}

}  // namespace

CHAIN_FUNCTION void ChainCapture(Request* request) {
  const std::unique_ptr<unwindstack::Regs> regs(unwindstack::Regs::CreateFromLocal());
  unwindstack::RegsGetLocal(regs.get());
  unwindstack::Unwinder unwinder(request->limit, &Maps(), regs.get(), nullptr);
  unwinder.Unwind(request->skip);
  for (const unwindstack::FrameData& frame : unwinder.frames()) request->pcs.push_back(frame.pc);
}

CHAIN_FUNCTION void ChainOuter(Request* request) {
  char large_frame[9000];
  __asm__ volatile("" : : "r"(large_frame) : "memory");
  ChainCapture(request);
  KEEP_FRAME;
}

CHAIN_FUNCTION void ChainDeep(Request* request, int depth) {
  if (depth == 0) {
    ChainOuter(request);
  } else {
    ChainDeep(request, depth - 1);
  }
  KEEP_FRAME;
}

namespace {

std::vector<std::string> CaptureAt(int depth, Request request) {
  ChainDeep(&request, depth);
  return Functions(request);
}

TEST(Unwinder, YieldsTheKnownChainUpToTheLimit) {
  std::vector<std::string> expected{"ChainCapture", "ChainOuter"};
  expected.resize(403, "ChainDeep");
  for (const std::size_t limit : {0, 1, 300, 1000}) {
    Request request;
    request.limit = limit;
    std::vector<std::string> functions = CaptureAt(400, request);
    EXPECT_LT(functions.size(), 500U);
    functions.resize(std::min(functions.size(), expected.size()));
    EXPECT_TRUE(std::equal(functions.begin(), functions.end(), expected.begin()));
    EXPECT_EQ(functions.size(), std::min(limit, expected.size()));
  }
}

TEST(Unwinder, DropsTheFirstFramesOfALibraryByItsName) {
  const std::vector<std::string> skip{"libother.so", ""};  // the program itself has no name
  Request request;
  request.skip = &skip;
  request.limit = 1;
  const std::vector<std::string> functions = CaptureAt(3, request);
  ASSERT_EQ(functions.size(), 1U);
  EXPECT_NE(functions[0].substr(0, 5), "Chain");
}

TEST(Unwinder, WorksOnManyThreadsAndInChildrenForkedMeanwhile) {
  Maps();
  const auto capture = [](int depth) {
    Request request;
    request.limit = 12;
    const std::vector<std::string> functions = CaptureAt(depth, request);
    return functions.size() <= 12 && functions.size() > 2 && functions[1] == "ChainOuter" &&
           std::count(functions.begin(), functions.end(), "ChainDeep") == depth + 1;
  };
#if defined(__SANITIZE_ADDRESS__)
  constexpr int kForks = 0;  // a child may inherit a lock of the sanitizer's allocator
#else
  constexpr int kForks = 100;
#endif
  std::atomic<bool> stop{false};
  std::vector<std::thread> threads;
  for (int depth = 4; depth < 8; ++depth) {
    threads.emplace_back([&, depth] {
      for (int i = 0; i < 200 || !stop; ++i) EXPECT_TRUE(capture(depth));
    });
  }
  for (int i = 0; i < kForks; ++i) {
    const pid_t child = fork();
    if (child == 0) {
      alarm(20);
      _exit(capture(5) ? 0 : 1);
    }
    int status = -1;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    EXPECT_EQ(status, 0);
  }
  stop = true;
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
