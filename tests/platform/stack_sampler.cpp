// SPDX-License-Identifier: Apache-2.0
// A library to preload: interrupts the program's threads at random places, and compares the walk by
// call-frame information with the C++ runtime's unwinder. When the program exits, appends a line
// and the first difference to the file STACK_SAMPLER_RESULT.
//
// STACK_SAMPLER_MICROSECONDS is the time between interruptions; with 0 the program sends the
// signals itself. On x86-64 each is followed by STACK_SAMPLER_STEPS single steps, all of which are
// compared; they stop before a system call.
#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <time.h>
#include <ucontext.h>
#include <unistd.h>
#include <unwind.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "arch/frame.h"
#include "platform/call_stack.h"
#include "platform/cfi/walk.h"

namespace {

constexpr std::size_t kMaxFrames = 400;

struct Stack {
  std::uint64_t pcs[kMaxFrames];
  std::size_t count = 0;
};

std::atomic<unsigned long> g_places{0};  // compared stacks
std::atomic<unsigned long> g_frames{0};
std::atomic<unsigned long> g_differing{0};
// The first difference.
Stack g_ours;
Stack g_runtime;

struct RuntimeWalk {
  Stack* stack;
  std::uint64_t record;
  std::uint64_t cfa = 0;
  /// The last frame was interrupted by a signal. Its caller may be on another stack.
  bool after_signal = false;
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
  const bool may_jump = walk->count == 0 || interrupted != 0 || walk->after_signal;
  walk->after_signal = interrupted != 0;
  if (may_jump || cfa - walk->cfa < kMaxStepBytes) {
    walk->cfa = cfa;
    walk->count = stack.count;
  }
  return stack.count == kMaxFrames ? _URC_END_OF_STACK : _URC_NO_REASON;
}

/// Compares both stacks from the caller of the calling function outward. Any thread; may have
/// interrupted anything. Allocates nothing.
__attribute__((noinline)) void Compare() {
  const auto* own = static_cast<const arch::FrameRecord*>(__builtin_frame_address(0));
  const int saved_errno = errno;
  Stack ours;
  Stack runtime;
  ours.count = platform::CallStack(own, ours.pcs, kMaxFrames);
  RuntimeWalk walk{&runtime, own->caller_frame};
  _Unwind_Backtrace(Take, &walk);
  runtime.count = walk.count;
  ++g_places;
  g_frames += runtime.count;
  if (!std::equal(ours.pcs, ours.pcs + ours.count, runtime.pcs, runtime.pcs + runtime.count)) {
    if (g_differing++ == 0) {
      g_ours = ours;
      g_runtime = runtime;
    }
  }
  errno = saved_errno;
}

/// Appends the pcs of a stack, each with its library and offset.
void Append(const Stack& stack, const char* title, std::string* text) {
  *text += title;
  for (std::size_t i = 0; i < std::min<std::size_t>(stack.count, 40); ++i) {
    Dl_info info{};
    char line[512];
    if (dladdr(reinterpret_cast<void*>(stack.pcs[i]), &info) == 0) info.dli_fname = "?";
    std::snprintf(line, sizeof line, "\n    %s+%#lx %s", info.dli_fname,
                  stack.pcs[i] - reinterpret_cast<std::uint64_t>(info.dli_fbase),
                  info.dli_sname == nullptr ? "" : info.dli_sname);
    *text += line;
  }
  *text += "\n";
}

int g_steps = 0;
pid_t g_process = 0;
timer_t g_timer{};
std::string* g_result = nullptr;

int Setting(const char* name) {
  const char* text = std::getenv(name);
  return text == nullptr ? 0 : std::atoi(text);
}

thread_local int t_steps_left = 0;

/// Starts or stops single steps. If the program saves its flags during a step, they contain the
/// trap flag. When the program restores them, the steps continue until the thread ends.
void SetStepping(ucontext_t* context) {
#if defined(__x86_64__)
  constexpr greg_t kTrapFlag = 0x100;
  const auto* code = reinterpret_cast<const unsigned char*>(context->uc_mcontext.gregs[REG_RIP]);
  const bool is_system_call = code[0] == 0x0f && code[1] == 0x05;
  greg_t& flags = context->uc_mcontext.gregs[REG_EFL];
  flags &= ~kTrapFlag;
  if (t_steps_left > 0 && !is_system_call) flags |= kTrapFlag;
#else
  // The comparison needs the caller's frame, so its call must not become a jump.
  __asm__ volatile("" : : "r"(context));
#endif
}

void OnSignal(int signal, siginfo_t* /*info*/, void* context) {
  Compare();
  t_steps_left = signal == SIGPROF ? g_steps : t_steps_left - 1;
  SetStepping(static_cast<ucontext_t*>(context));
}

__attribute__((constructor)) void Start() {
  const char* result = std::getenv("STACK_SAMPLER_RESULT");
  if (result == nullptr) return;
  g_result = new std::string(result);
  g_process = getpid();
  // Prepares the runtime's unwinder for signal handlers, too.
  platform::PrepareCallStacks();
  Compare();
  g_steps = Setting("STACK_SAMPLER_STEPS");
  struct sigaction action {};
  action.sa_sigaction = OnSignal;
  action.sa_flags = SA_SIGINFO | SA_RESTART | SA_ONSTACK;
  sigfillset(&action.sa_mask);
  sigaction(SIGPROF, &action, nullptr);
  sigaction(SIGTRAP, &action, nullptr);
  sigevent event{};
  event.sigev_notify = SIGEV_SIGNAL;
  event.sigev_signo = SIGPROF;
  timer_create(CLOCK_MONOTONIC, &event, &g_timer);
  const long period = Setting("STACK_SAMPLER_MICROSECONDS") * 1000L;
  const itimerspec times{{period / 1'000'000'000, period % 1'000'000'000}, {0, period}};
  timer_settime(g_timer, 0, &times, nullptr);
}

__attribute__((destructor)) void Finish() {
  if (g_process == 0 || g_process != getpid()) return;
  signal(SIGPROF, SIG_IGN);
  timer_delete(g_timer);
  char line[256];
  std::snprintf(line, sizeof line, "%s places=%lu frames=%lu differing=%lu slow=%lu\n",
                program_invocation_short_name, g_places.load(), g_frames.load(), g_differing.load(),
                static_cast<unsigned long>(platform::cfi::SlowSteps()));
  std::string text = line;
  if (g_differing != 0) {
    Append(g_ours, "  ours:", &text);
    Append(g_runtime, "  the runtime's:", &text);
  }
  const int file = open(g_result->c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  if (file < 0 || write(file, text.data(), text.size()) < 0) std::abort();
  close(file);
}

}  // namespace
