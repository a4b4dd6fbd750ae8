// SPDX-License-Identifier: Apache-2.0
#include "tests/platform/stack_comparison.h"

#include <dlfcn.h>
#include <unwind.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "platform/call_stack.h"
#include "platform/cfi/walk.h"

namespace comparison {
namespace {

constexpr std::size_t kMaxFrames = 400;
constexpr std::size_t kKeptDifferences = 8;

struct Stack {
  std::uint64_t pcs[kMaxFrames];
  std::size_t count = 0;
};

struct Difference {
  std::atomic<bool> is_complete{false};
  Stack ours;
  Stack runtime;
};

std::atomic<std::uint64_t> g_places{0};
std::atomic<std::uint64_t> g_frames{0};
std::atomic<std::uint64_t> g_differing{0};
std::atomic<std::uint64_t> g_shorter{0};
std::atomic<std::uint64_t> g_longer{0};
Difference g_differences[kKeptDifferences];

struct RuntimeWalk {
  Stack* stack;
  std::uint64_t record;
  std::uint64_t cfa = 0;
  /// Frames up to the last one that is on the stack. With wrong tables the runtime continues with
  /// values from elsewhere.
  std::size_t count = 0;
};

_Unwind_Reason_Code Take(_Unwind_Context* context, void* data) {
  constexpr std::uint64_t kMaxStepBytes = std::uint64_t{16} << 20;
  auto* walk = static_cast<RuntimeWalk*>(data);
  Stack& stack = *walk->stack;
  int interrupted = 0;
  const auto pc = arch::StripReturnAddress(
      static_cast<std::uint64_t>(_Unwind_GetIPInfo(context, &interrupted)));
  const auto cfa = static_cast<std::uint64_t>(_Unwind_GetCFA(context));
  if (pc == 0) return _URC_END_OF_STACK;
  // The functions of the comparison are below the record.
  if (stack.count == 0 && cfa <= walk->record) return _URC_NO_REASON;
  stack.pcs[stack.count++] = interrupted != 0 ? pc : pc - arch::kCallSiteAdjustment;
  if (walk->count == 0 || interrupted != 0 || cfa - walk->cfa < kMaxStepBytes) {
    walk->cfa = cfa;
    walk->count = stack.count;
  }
  return stack.count == kMaxFrames ? _URC_END_OF_STACK : _URC_NO_REASON;
}

void Append(const Stack& stack, const char* title, std::string* text) {
  *text += title;
  for (std::size_t i = 0; i < std::min<std::size_t>(stack.count, 40); ++i) {
    Dl_info info{};
    char line[512];
    const std::uint64_t pc = stack.pcs[i];
    if (dladdr(reinterpret_cast<void*>(pc), &info) == 0) info.dli_fname = "?";
    const char* slash = std::strrchr(info.dli_fname, '/');
    std::snprintf(
        line, sizeof line, "\n    %#llx %s+%#llx %s", static_cast<unsigned long long>(pc),
        slash == nullptr ? info.dli_fname : slash + 1,
        static_cast<unsigned long long>(pc - reinterpret_cast<std::uint64_t>(info.dli_fbase)),
        info.dli_sname == nullptr ? "" : info.dli_sname);
    *text += line;
  }
  *text += "\n";
}

void Keep(const Stack& ours, const Stack& runtime, std::uint64_t number) {
  if (number >= kKeptDifferences) return;
  g_differences[number].ours = ours;
  g_differences[number].runtime = runtime;
  g_differences[number].is_complete = true;
}

}  // namespace

void Prepare() {
  platform::PrepareCallStacks();
  Compare();
}

bool IsInRuntime(std::uint64_t pc) {
  static dl_find_object runtime{};
  if (runtime.dlfo_map_start == nullptr) {
    _dl_find_object(reinterpret_cast<void*>(&_Unwind_Backtrace), &runtime);
  }
  return pc - reinterpret_cast<std::uint64_t>(runtime.dlfo_map_start) <
         static_cast<std::uint64_t>(static_cast<const char*>(runtime.dlfo_map_end) -
                                    static_cast<const char*>(runtime.dlfo_map_start));
}

__attribute__((noinline)) void Compare() {
  const auto* own = static_cast<const arch::FrameRecord*>(__builtin_frame_address(0));
  const int saved_errno = errno;
  Stack ours;
  Stack runtime;
  ours.count = platform::CallStack(own, ours.pcs, kMaxFrames);
  RuntimeWalk walk{&runtime, own->caller_frame};
  _Unwind_Backtrace(Take, &walk);
  runtime.count = walk.count;
  g_places.fetch_add(1);
  g_frames.fetch_add(runtime.count);
  const std::size_t common = std::min(ours.count, runtime.count);
  const bool same_start = std::equal(ours.pcs, ours.pcs + common, runtime.pcs);
  if (!same_start || ours.count != runtime.count) {
    if (same_start) (ours.count < runtime.count ? g_shorter : g_longer).fetch_add(1);
    Keep(ours, runtime, g_differing.fetch_add(1));
  }
  errno = saved_errno;
}

Totals Result() {
  return {g_places, g_frames, g_differing, g_shorter, g_longer, platform::cfi::SlowSteps()};
}

std::string Differences() {
  std::string text;
  for (const Difference& difference : g_differences) {
    if (!difference.is_complete) continue;
    Append(difference.ours, "  ours:", &text);
    Append(difference.runtime, "  the runtime's:", &text);
  }
  return text;
}

}  // namespace comparison
