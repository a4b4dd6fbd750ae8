// SPDX-License-Identifier: Apache-2.0
// Fault-safe operations: a signal handler for the duration of one call, and a jump out of it.
#include "sigmux/sig_safe_write.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

namespace {

struct write_request {
  void* destination;
  std::intptr_t value;
};

std::int32_t current_thread() {
  return static_cast<std::int32_t>(syscall(SYS_gettid));
}

/// Calls `op(arg)`. Returns 1 with EFAULT if a fault ended it, otherwise 0.
int run_until_fault(sig_safe_op_context* context, void (*op)(void*), void* arg) {
  if (sigsetjmp(context->jump, 1) != 0) {
    // The jump target is invalid once this function returns; a later signal must not use it.
    context->active.store(0);
    errno = EFAULT;
    return 1;
  }
  context->active.store(1);
  op(arg);
  context->active.store(0);
  return 0;
}

/// Not instrumented: ThreadSanitizer would do the store inside its runtime, and a jump out of the
/// runtime leaves its locks held.
__attribute__((no_sanitize("thread"))) void write_word(void* arg) {
  const auto* request = static_cast<const write_request*>(arg);
  __atomic_store_n(static_cast<std::intptr_t*>(request->destination), request->value,
                   __ATOMIC_SEQ_CST);
}

}  // namespace

int sig_safe_op(void (*op)(void*), void* arg) {
  sig_safe_op_context context{};
  context.tid.store(current_thread());
  context.expect_sigill.store(0);
  sigset_t signals;
  if (sigemptyset(&signals) != 0 || sigaddset(&signals, SIGSEGV) != 0 ||
      sigaddset(&signals, SIGBUS) != 0) {
    return 1;
  }
  // On the stack, so that unhooking needs no memory.
  sigmux_entry entry = {nullptr, {nullptr}, signals, fault_handler, &context, 0};
  sigmux_add(&entry);
  const int result = run_until_fault(&context, op, arg);
  const int saved_errno = errno;
  sigmux_remove(&entry);
  errno = saved_errno;
  return result;
}

int sig_safe_write(void* destination, std::intptr_t value) {
  write_request request = {destination, value};
  return sig_safe_op(write_word, &request);
}

int fault_handler(sigmux_event* event, void* context) {
  auto* operation = static_cast<sig_safe_op_context*>(context);
  if (operation->tid.load() != current_thread() || operation->active.load() == 0) return 0;
  const int signum = event->info->si_signo;
  const bool mine = operation->expect_sigill.load() != 0 ? signum == SIGILL
                                                         : signum == SIGSEGV || signum == SIGBUS;
  if (!mine) return 0;
  sigmux_longjmp(event, operation->jump, 1);
}
