// SPDX-License-Identifier: Apache-2.0
// Runs code that may fault, and writes to memory that may not be writable.
//
// The hook engine uses it to patch a slot, on any thread; several threads may do so at once. Each
// call adds and removes a signal handler, so it is meant for rare operations. Nothing here
// allocates.
#pragma once

#include <setjmp.h>

#include <atomic>
#include <cstdint>

#include "sigmux/sigmux.h"

/// One running operation. Lives on its caller's stack. Handlers on other threads read it too.
struct sig_safe_op_context {
  /// Kernel thread id (gettid) of the thread that runs the operation.
  std::atomic<std::int32_t> tid;
  /// Non-zero while the operation runs.
  std::atomic<std::uint32_t> active;
  /// Non-zero: only SIGILL counts as a fault of the operation. Always 0 in this library.
  std::atomic<std::uint32_t> expect_sigill;
  /// Jump target for a fault.
  sigjmp_buf jump;
};

/// Calls `op(arg)`. A SIGSEGV or SIGBUS that `op` raises on this thread ends the call. Both signals
/// must have been passed to sigmux_init; otherwise a fault kills the process. A fault leaves `op`
/// by siglongjmp, which runs no destructors, so `op` must own nothing.
///
/// Returns 0 if `op` returned, with errno as `op` left it; 1 with EFAULT if it faulted; 1 if the
/// handler could not be set up. Takes the multiplexer's lock. Not for signal handlers.
int sig_safe_op(void (*op)(void*), void* arg);

/// Stores `value` into the aligned, pointer-sized word at `destination` with one sequentially
/// consistent store. Returns as sig_safe_op does; on 1 nothing was written.
int sig_safe_write(void* destination, std::intptr_t value);

/// The handler that sig_safe_op registers; `context` is its sig_safe_op_context. Jumps to
/// `context->jump` for a fault of the running operation. Returns 0 (not claimed) for other signals.
/// Runs in signal context.
int fault_handler(sigmux_event* event, void* context);
