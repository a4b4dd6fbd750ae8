// SPDX-License-Identifier: Apache-2.0
// A library to preload: interrupts the program's threads at random places and compares the stacks
// of both unwinders. When the program exits, appends a line and the first differences to the file
// STACK_SAMPLER_RESULT.
//
// STACK_SAMPLER_MICROSECONDS is the time between interruptions (100). On x86-64 each is followed by
// STACK_SAMPLER_STEPS (0) single steps, all of which are compared; they stop before a system call.
#include <fcntl.h>
#include <signal.h>
#include <time.h>
#include <ucontext.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "tests/platform/stack_comparison.h"

namespace {

constexpr int kSignal = SIGPROF;

std::atomic<int> g_steps{0};
pid_t g_process = 0;
timer_t g_timer{};
const char* g_result = nullptr;

long Setting(const char* name, long otherwise) {
  const char* text = std::getenv(name);
  return text == nullptr ? otherwise : std::strtol(text, nullptr, 10);
}

#if defined(__x86_64__)
constexpr greg_t kTrapFlag = 0x100;
thread_local int t_steps_left = 0;

bool IsAtSystemCall(const ucontext_t* context) {
  const auto* code = reinterpret_cast<const unsigned char*>(context->uc_mcontext.gregs[REG_RIP]);
  return code[0] == 0x0f && code[1] == 0x05;
}

/// Starts or stops single steps. If the program saves its flags during a step, they contain the
/// trap flag. When the program restores them, the steps continue until the thread ends.
void SetStepping(ucontext_t* context) {
  greg_t& flags = context->uc_mcontext.gregs[REG_EFL];
  flags &= ~kTrapFlag;
  if (t_steps_left > 0 && !IsAtSystemCall(context)) flags |= kTrapFlag;
}

void OnStep(int /*signal*/, siginfo_t* /*info*/, void* context) {
  comparison::Compare();
  --t_steps_left;
  SetStepping(static_cast<ucontext_t*>(context));
}
#endif

void OnTimer(int /*signal*/, siginfo_t* /*info*/, void* context) {
  comparison::Compare();
#if defined(__x86_64__)
  t_steps_left = g_steps;
  SetStepping(static_cast<ucontext_t*>(context));
#else
  // The comparison needs this function's frame, so the call must not become a jump.
  __asm__ volatile("" : : "r"(context));
#endif
}

void Handle(int signal, void (*handler)(int, siginfo_t*, void*)) {
  struct sigaction action {};
  action.sa_sigaction = handler;
  action.sa_flags = SA_SIGINFO | SA_RESTART | SA_ONSTACK;
  sigfillset(&action.sa_mask);
  sigaction(signal, &action, nullptr);
}

__attribute__((constructor)) void Start() {
  const char* result = std::getenv("STACK_SAMPLER_RESULT");
  if (result == nullptr) return;
  g_result = strdup(result);
  g_process = getpid();
  comparison::Prepare();
  Handle(kSignal, OnTimer);
#if defined(__x86_64__)
  g_steps = static_cast<int>(Setting("STACK_SAMPLER_STEPS", 0));
  Handle(SIGTRAP, OnStep);
#endif
  sigevent event{};
  event.sigev_notify = SIGEV_SIGNAL;
  event.sigev_signo = kSignal;
  timer_create(CLOCK_MONOTONIC, &event, &g_timer);
  const long period = Setting("STACK_SAMPLER_MICROSECONDS", 100) * 1000;
  const itimerspec times{{period / 1'000'000'000, period % 1'000'000'000}, {0, period}};
  timer_settime(g_timer, 0, &times, nullptr);
}

__attribute__((destructor)) void Finish() {
  if (g_process == 0 || g_process != getpid()) return;
  signal(kSignal, SIG_IGN);
  timer_delete(g_timer);
  const comparison::Totals totals = comparison::Result();
  char line[256];
  std::snprintf(line, sizeof line,
                "%s places=%llu frames=%llu differing=%llu shorter=%llu longer=%llu slow=%llu\n",
                program_invocation_short_name, static_cast<unsigned long long>(totals.places),
                static_cast<unsigned long long>(totals.frames),
                static_cast<unsigned long long>(totals.differing),
                static_cast<unsigned long long>(totals.shorter),
                static_cast<unsigned long long>(totals.longer),
                static_cast<unsigned long long>(totals.slow_steps));
  const std::string text = line + comparison::Differences();
  const int file = open(g_result, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  if (file < 0 || write(file, text.data(), text.size()) < 0) std::abort();
  close(file);
}

}  // namespace
