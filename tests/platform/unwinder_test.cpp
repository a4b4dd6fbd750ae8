// The unwinder: the same known call chain by its fast and by its slow way, the limit, the skipping
// of a library's frames, and many threads at once.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>
#include <unwindstack/Unwinder.h>

#include <atomic>
#include <csignal>
#include <memory>
#include <string_view>
#include <thread>

#include "unwind_fixture.h"

// Chains of known functions: exported, so that dladdr can name them, and never folded or inlined.
#define CHAIN_FUNCTION extern "C" __attribute__((visibility("default"), noinline, noclone))
#define KEEP_FRAME __asm__ volatile("")

namespace {

using unwindstack::FrameData;

enum class Way { kDirect, kHelper, kMaps, kNames };

struct Request {
  Way way = Way::kDirect;
  std::size_t limit = 64;
  const std::vector<std::string>* skip = nullptr;
  const std::vector<std::string>* ignored_suffixes = nullptr;
  std::vector<FrameData> frames;
};

unwindstack::LocalUpdatableMaps& Maps() {
  static unwindstack::LocalUpdatableMaps maps;
  static const bool parsed = maps.Parse();
  EXPECT_TRUE(parsed);
  return maps;
}

/// One call further from the registers than the unwinder's fast way accepts.
__attribute__((noinline)) void UnwindInHelper(unwindstack::Unwinder& unwinder, Request& request) {
  unwinder.Unwind(request.skip, request.ignored_suffixes);
  KEEP_FRAME;
}

std::string FunctionAt(std::uint64_t pc) {
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(pc), &info) == 0 || info.dli_sname == nullptr) return "?";
  return info.dli_sname;
}

std::vector<std::string> Functions(const std::vector<FrameData>& frames) {
  std::vector<std::string> names;
  names.reserve(frames.size());
  for (const FrameData& frame : frames) names.push_back(FunctionAt(frame.pc));
  return names;
}

std::vector<std::uint64_t> Pcs(const std::vector<FrameData>& frames) {
  std::vector<std::uint64_t> pcs;
  pcs.reserve(frames.size());
  for (const FrameData& frame : frames) pcs.push_back(frame.pc);
  return pcs;
}

}  // namespace

CHAIN_FUNCTION void ChainCapture(Request* request) {
  const std::unique_ptr<unwindstack::Regs> regs(unwindstack::Regs::CreateFromLocal());
  unwindstack::RegsGetLocal(regs.get());
  unwindstack::Unwinder unwinder(request->limit, &Maps(), regs.get(),
                                 unwindstack::Memory::CreateProcessMemoryThreadCached(getpid()));
  unwinder.SetResolveNames(request->way == Way::kNames);
  if (request->way == Way::kMaps) unwinder.SetResolveMaps(true);
  if (request->way == Way::kHelper) {
    UnwindInHelper(unwinder, *request);
  } else {
    unwinder.Unwind(request->skip, request->ignored_suffixes);
  }
  EXPECT_EQ(unwinder.NumFrames(), unwinder.frames().size());
  request->frames = unwinder.ConsumeFrames();
}

CHAIN_FUNCTION void ChainInner(Request* request) {
  ChainCapture(request);
  KEEP_FRAME;
}

CHAIN_FUNCTION void ChainOuter(Request* request) {
  char large_frame[9000];
  __asm__ volatile("" : : "r"(large_frame) : "memory");
  ChainInner(request);
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

std::vector<FrameData> CaptureAt(int depth, Request request) {
  ChainDeep(&request, depth);
  return std::move(request.frames);
}

TEST(Unwinder, EveryWayYieldsTheKnownChain) {
  std::vector<std::uint64_t> callers;
  for (const Way way : {Way::kDirect, Way::kHelper, Way::kMaps, Way::kNames}) {
    Request request;
    request.way = way;
    std::vector<FrameData> frames = CaptureAt(2, request);
    const std::vector<std::string> expected{"ChainCapture", "ChainInner", "ChainOuter",
                                            "ChainDeep",    "ChainDeep",  "ChainDeep"};
    ASSERT_GT(frames.size(), expected.size());
    std::vector<std::string> names = Functions(frames);
    names.resize(expected.size());
    EXPECT_EQ(names, expected);
    // The first pc depends on where in ChainCapture the unwind was asked for.
    std::vector<std::uint64_t> pcs = Pcs(frames);
    pcs.erase(pcs.begin());
    pcs.resize(expected.size() - 1);
    if (callers.empty()) callers = pcs;
    EXPECT_EQ(pcs, callers);
    for (std::size_t i = 0; i < frames.size(); ++i) EXPECT_EQ(frames[i].num, i);
  }
}

TEST(Unwinder, ResolvesWhatIsAskedFor) {
  Request request;
  request.way = Way::kNames;
  const std::vector<FrameData> frames = CaptureAt(0, request);
  ASSERT_GT(frames.size(), 4U);
  std::uint64_t last_sp = 0;
  for (std::size_t i = 0; i < 4; ++i) {
    const FrameData& frame = frames[i];
    EXPECT_EQ(std::string(frame.function_name), FunctionAt(frame.pc));
    EXPECT_LT(frame.function_offset, 4096U);
    ASSERT_NE(frame.map_info, nullptr);
    EXPECT_EQ(frame.map_info->start() + frame.rel_pc, frame.pc);
    EXPECT_NE(std::string(frame.map_info->name()).find("platform_unwinder_test"),
              std::string::npos);
    EXPECT_GT(frame.sp, last_sp);
    last_sp = frame.sp;
  }
  request.way = Way::kDirect;
  const FrameData plain = CaptureAt(0, request).at(1);
  EXPECT_EQ(plain.map_info, nullptr);
  EXPECT_TRUE(plain.function_name.is_null());
}

TEST(Unwinder, StopsAtTheLimit) {
  for (const Way way : {Way::kDirect, Way::kHelper}) {
    Request request;
    request.way = way;
    // Around the size of the trace buffer the fast way hands over to the slow one.
    for (const std::size_t limit : {0, 1, 2, 12, 243, 244, 245, 256, 300}) {
      request.limit = limit;
      const std::vector<FrameData> frames = CaptureAt(400, request);
      ASSERT_EQ(frames.size(), limit);
      if (limit > 3) {
        EXPECT_EQ(FunctionAt(frames.back().pc), "ChainDeep");
      }
    }
    request.limit = std::size_t{1} << 31;
    const std::size_t whole = CaptureAt(400, request).size();
    EXPECT_GT(whole, 404U);
    EXPECT_LT(whole, 500U);
  }
}

TEST(Unwinder, SuffixEndsTheUnwind) {
  const std::vector<std::string> suffixes{"xyz", "so"};
  Request request;
  request.ignored_suffixes = &suffixes;
  const std::vector<FrameData> frames = CaptureAt(0, request);
  // The test framework's library, or else the C library, lies below this program's own frames.
  ASSERT_GE(frames.size(), 4U);
  for (const FrameData& frame : frames) {
    EXPECT_EQ(frame.map_info, nullptr);  // looked up for the suffix only
  }
}

// --- Frames of a library -------------------------------------------------------------------------

class Fixture {
 public:
  Fixture() : library_(dlopen(UNWIND_FIXTURE, RTLD_NOW | RTLD_LOCAL)) {
    EXPECT_NE(library_, nullptr) << dlerror();
    capture = reinterpret_cast<decltype(&FixtureCapture)>(dlsym(library_, "FixtureCapture"));
    call = reinterpret_cast<decltype(&FixtureCall)>(dlsym(library_, "FixtureCall"));
  }

  static bool Owns(std::uint64_t pc) {
    Dl_info info{};
    return dladdr(reinterpret_cast<void*>(pc), &info) != 0 &&
           std::string_view(info.dli_fname).find(UNWIND_FIXTURE_NAME) != std::string_view::npos;
  }

  decltype(&FixtureCapture) capture;
  decltype(&FixtureCall) call;

 private:
  void* const library_;  // stays loaded: its maps may be in use until the end
};

CHAIN_FUNCTION void ChainIntoFixture(const Fixture& fixture, Capture* capture) {
  fixture.capture(capture);
  KEEP_FRAME;
}

TEST(Unwinder, SkippedFramesDoNotCount) {
  const Fixture fixture;
  for (const bool names : {false, true}) {
    Capture capture;
    capture.names = names;
    ChainIntoFixture(fixture, &capture);
    ASSERT_GT(capture.pcs.size(), 3U);
    EXPECT_TRUE(Fixture::Owns(capture.pcs[0]));
    EXPECT_EQ(FunctionAt(capture.pcs[1]), "FixtureCapture");
    EXPECT_EQ(FunctionAt(capture.pcs[2]), "ChainIntoFixture");

    for (const std::size_t limit : {1, 2, 3}) {
      Capture skipping;
      skipping.names = names;
      skipping.skip = true;
      skipping.limit = limit;
      ChainIntoFixture(fixture, &skipping);
      ASSERT_EQ(skipping.pcs.size(), limit);
      EXPECT_EQ(FunctionAt(skipping.pcs[0]), "ChainIntoFixture");
    }
  }
}

Request* g_request = nullptr;

TEST(Unwinder, OnlyFramesAtTheTopAreSkipped) {
  ASSERT_NE(Maps().Find(reinterpret_cast<std::uint64_t>(&FunctionAt)), nullptr);
  // Loaded after the maps were read.
  const Fixture fixture;
  const std::vector<std::string> skip{UNWIND_FIXTURE_NAME};
  for (const Way way : {Way::kDirect, Way::kHelper}) {
    Request request;
    request.way = way;
    request.skip = &skip;
    g_request = &request;
    Capture unused;
    fixture.call(
        [](Capture*) {
          ChainInner(g_request);
          KEEP_FRAME;
        },
        &unused);
    const std::vector<std::string> names = Functions(request.frames);
    ASSERT_GT(names.size(), 4U);
    EXPECT_EQ(names[0], "ChainCapture");
    EXPECT_EQ(names[3], "FixtureCall");
  }
}

TEST(Unwinder, SkipsALibraryThatWasLoadedLater) {
  ASSERT_NE(Maps().FindCode(reinterpret_cast<std::uint64_t>(&FunctionAt)), nullptr);
  const Fixture fixture;
  const auto in_fixture = reinterpret_cast<std::uint64_t>(fixture.call);
  ASSERT_NE(Maps().FindCode(in_fixture), nullptr);
  EXPECT_EQ(Maps().FindCode(in_fixture)->basename, UNWIND_FIXTURE_NAME);
}

TEST(Unwinder, ManyThreadsAtOnce) {
  const std::vector<std::string> skip{"libother.so"};
  Maps();
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&skip, i] {
      Request request;
      request.limit = 12;
      request.skip = &skip;
      const int depth = 4 + i;
      const std::vector<std::uint64_t> first = Pcs(CaptureAt(depth, request));
      request.limit = 7;
      for (int round = 0; round < 100; ++round) {
        // Other depths in between, so that the traces do not only ever see one stack.
        CaptureAt(round % 9, request);
        request.limit = 12;
        const std::vector<FrameData> frames = CaptureAt(depth, request);
        ASSERT_EQ(frames.size(), 12U);
        EXPECT_EQ(Functions(frames)[2], "ChainOuter");
        // The call of the chain itself stands at another place than the first time.
        EXPECT_EQ(std::vector<std::uint64_t>(first.begin(), first.begin() + depth + 3), [&] {
          std::vector<std::uint64_t> pcs = Pcs(frames);
          pcs.resize(static_cast<std::size_t>(depth) + 3);
          return pcs;
        }());
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

TEST(Unwinder, WorksInAChildForkedWhileOthersUnwind) {
  Maps();
  std::atomic<bool> stop{false};
  std::thread churn([&stop] {
    while (!stop) {
      // Every unwind has to look everything up again, under libunwind's lock.
      unw_flush_cache(unw_local_addr_space, 0, 0);
      Request request;
      request.way = Way::kHelper;
      CaptureAt(5, request);
    }
  });
  int failures = 0;
  for (int i = 0; i < 40 && failures == 0; ++i) {
    const pid_t child = fork();
    if (child == 0) {
      unw_flush_cache(unw_local_addr_space, 0, 0);
      Request request;
      request.limit = 3;
      _exit(CaptureAt(1, request).size() == 3 ? 0 : 1);
    }
    // A child that hangs does so with all signals blocked: only the parent can end it.
    int status = 0;
    pid_t ended = 0;
    for (int pause = 0; pause < 1000 && ended == 0; ++pause) {
      usleep(10'000);
      ended = waitpid(child, &status, WNOHANG);
    }
    if (ended == child && status == 0) continue;
    ++failures;
    kill(child, SIGKILL);
    waitpid(child, &status, 0);
  }
  EXPECT_EQ(failures, 0);
  stop = true;
  churn.join();
}

}  // namespace
