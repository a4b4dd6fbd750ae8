// The unwinder: the same known call chain by its fast and by its slow way, the limit, the skipping
// of frames, many threads at once, forks, and programs that close every descriptor. Built once for
// each of the unwinders that the interface stands on.
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <unwindstack/Unwinder.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <memory>
#include <thread>

#include "tests/temporary_directory.h"

// Chains of known functions: exported, so that dladdr can name them, and never folded or inlined.
#define CHAIN_FUNCTION extern "C" __attribute__((visibility("default"), noinline, noclone))
#define KEEP_FRAME __asm__ volatile("")

namespace {

using unwindstack::FrameData;

enum class Way { kDirect, kHelper, kNames };

struct Request {
  Way way = Way::kDirect;
  std::size_t limit = 64;
  const std::vector<std::string>* skip = nullptr;
  std::vector<FrameData> frames;
};

unwindstack::LocalUpdatableMaps& Maps() {
  static unwindstack::LocalUpdatableMaps maps;
  static const bool parsed = maps.Parse();
  EXPECT_TRUE(parsed);
  return maps;
}

/// Makes the next unwind look everything up again.
void ForgetCode() {
#if defined(UNW_LOCAL_ONLY)
  unw_flush_cache(unw_local_addr_space, 0, 0);
#endif
}

/// One call further from the registers than the unwinder's fast way accepts.
__attribute__((noinline)) void UnwindInHelper(unwindstack::Unwinder& unwinder, Request& request) {
  unwinder.Unwind(request.skip, nullptr);
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

}  // namespace

CHAIN_FUNCTION void ChainCapture(Request* request) {
  const std::unique_ptr<unwindstack::Regs> regs(unwindstack::Regs::CreateFromLocal());
  unwindstack::RegsGetLocal(regs.get());
  unwindstack::Unwinder unwinder(request->limit, &Maps(), regs.get(),
                                 unwindstack::Memory::CreateProcessMemoryThreadCached(getpid()));
  unwinder.SetResolveNames(request->way == Way::kNames);
  if (request->way == Way::kHelper) {
    UnwindInHelper(unwinder, *request);
  } else {
    unwinder.Unwind(request->skip, nullptr);
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
  std::vector<FrameData> first;
  for (const Way way : {Way::kDirect, Way::kHelper, Way::kNames}) {
    Request request;
    request.way = way;
    const std::vector<FrameData> frames = CaptureAt(2, request);
    const std::vector<std::string> expected{"ChainCapture", "ChainInner", "ChainOuter",
                                            "ChainDeep",    "ChainDeep",  "ChainDeep"};
    ASSERT_GT(frames.size(), expected.size());
    std::vector<std::string> names = Functions(frames);
    names.resize(expected.size());
    EXPECT_EQ(names, expected);
    // The first pc depends on where in ChainCapture the unwind was asked for.
    if (first.empty()) first = frames;
    for (std::size_t i = 1; i < expected.size(); ++i) EXPECT_EQ(frames[i].pc, first[i].pc);
    std::uint64_t last_sp = 0;
    for (std::size_t i = 0; way == Way::kNames && i < expected.size(); ++i) {
      EXPECT_EQ(frames[i].num, i);
      EXPECT_EQ(std::string(frames[i].function_name), expected[i]);
      ASSERT_NE(frames[i].map_info, nullptr);
      EXPECT_EQ(frames[i].map_info->start() + frames[i].rel_pc, frames[i].pc);
      EXPECT_GT(frames[i].sp, last_sp);
      last_sp = frames[i].sp;
    }
  }
}

TEST(Unwinder, StopsAtTheLimit) {
  for (const Way way : {Way::kDirect, Way::kHelper}) {
    Request request;
    request.way = way;
    // Around the size of the trace buffer the fast way hands over to the slow one.
    for (const std::size_t limit : {0, 1, 244, 245, 300}) {
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

TEST(Unwinder, SkippedFramesDoNotCount) {
  const std::string program = program_invocation_short_name;
  const std::vector<std::string> skip{"libother.so", program};
  for (const Way way : {Way::kDirect, Way::kHelper}) {
    Request request;
    request.way = way;
    request.skip = &skip;
    request.limit = 2;
    const std::vector<FrameData> frames = CaptureAt(3, request);
    ASSERT_EQ(frames.size(), 2U);
    for (const FrameData& frame : frames) {
      EXPECT_NE(Maps().FindCode(frame.pc)->basename, program);
    }
  }
}

TEST(Unwinder, ManyThreadsAtOnce) {
  Maps();
  std::vector<std::thread> threads;
  for (int depth = 4; depth < 8; ++depth) {
    threads.emplace_back([depth] {
      Request request;
      request.limit = 12;
      for (int round = 0; round < 100; ++round) {
        // Other depths in between, so that the traces do not only ever see one stack.
        CaptureAt(round % 9, request);
        const std::vector<std::string> functions = Functions(CaptureAt(depth, request));
        ASSERT_EQ(functions.size(), 12U);
        EXPECT_EQ(functions[2], "ChainOuter");
        EXPECT_EQ(std::count(functions.begin(), functions.end(), "ChainDeep"), depth + 1);
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
      // Every unwind has to look everything up again, under the unwinder's lock.
      ForgetCode();
      Request request;
      request.way = Way::kHelper;
      CaptureAt(5, request);
    }
  });
  int failures = 0;
  for (int i = 0; i < 40 && failures == 0; ++i) {
    const pid_t child = fork();
    if (child == 0) {
      ForgetCode();
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

// Calls `function` with `frame` in the frame pointer. No unwind information says so: whoever
// unwinds through it has only the frame pointer to go by, and must check what it points to.
extern "C" void CallOnFrame(void (*function)(Request*), Request* request, const void* frame);
#if defined(__aarch64__)
__asm__(
    ".text\n"
    ".globl CallOnFrame\n"
    ".type CallOnFrame, %function\n"
    "CallOnFrame:\n"
    "  stp x29, x30, [sp, #-16]!\n"
    "  mov x29, x2\n"
    "  mov x9, x0\n"
    "  mov x0, x1\n"
    "  blr x9\n"
    "  ldp x29, x30, [sp], #16\n"
    "  ret\n"
    ".size CallOnFrame, .-CallOnFrame\n");
#else
__asm__(
    ".text\n"
    ".globl CallOnFrame\n"
    ".type CallOnFrame, @function\n"
    "CallOnFrame:\n"
    "  push %rbp\n"
    "  mov %rdx, %rbp\n"
    "  mov %rdi, %rax\n"
    "  mov %rsi, %rdi\n"
    "  call *%rax\n"
    "  pop %rbp\n"
    "  ret\n"
    ".size CallOnFrame, .-CallOnFrame\n");
#endif

namespace {

/// Every kind of frame pointer that a function without unwind information may leave behind.
void CaptureThroughGarbage() {
  const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  void* forbidden = mmap(nullptr, page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(forbidden, MAP_FAILED);
  const std::uintptr_t record[64] = {0x1234567, 0x7654321};
  for (const Way way : {Way::kDirect, Way::kNames}) {
    for (const void* frame : {static_cast<const void*>(record), static_cast<const void*>(forbidden),
                              reinterpret_cast<const void*>(std::uintptr_t{16}),
                              reinterpret_cast<const void*>(std::uintptr_t{0x5555'5555'0000})}) {
      Request request;
      request.way = way;
      CallOnFrame(ChainCapture, &request, frame);
      EXPECT_GE(request.frames.size(), 2U) << frame;
    }
  }
  munmap(forbidden, page);
}

std::vector<int> OpenDescriptors() {
  std::vector<int> open;
  for (int file = 0; file < 256; ++file) {
    if (fcntl(file, F_GETFD) >= 0) open.push_back(file);
  }
  return open;
}

TEST(Unwinder, FilesOfTheProgramAreLeftAlone) {
  const TemporaryDirectory directory;
  const std::string text = "abcdefghijklmnopqrstuvwxyz";
  const std::string data = directory.Write("data", text);
  const std::vector<int> before = OpenDescriptors();
  CaptureThroughGarbage();
  EXPECT_EQ(OpenDescriptors(), before);

  for (int file = 3; file < 64; ++file) close(file);
  std::vector<int> files(6);
  for (int& file : files) file = open(data.c_str(), O_RDWR);
  EXPECT_EQ(files.front(), 3);
  for (int round = 0; round < 20; ++round) CaptureThroughGarbage();
  for (const int file : files) EXPECT_EQ(lseek(file, 0, SEEK_CUR), 0) << file;
  EXPECT_EQ(directory.Read("data"), text);
}

}  // namespace
