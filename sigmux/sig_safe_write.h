// Running code that may fault, and writing to memory that may not be writable.
//
// Called by the hook engine when it patches a slot, on whichever thread does the hooking; several
// threads may do so at once. For rare operations: each call adds and removes a handler. Nothing
// here allocates.
#pragma once

#include <setjmp.h>

#include <atomic>
#include <cstdint>

#include "sigmux/sigmux.h"

/// One running operation; on its caller's stack. Handlers on other threads read it, too.
struct sig_safe_op_context {
  /// The kernel's id of the thread that runs the operation.
  std::atomic<std::int32_t> tid;
  /// Not zero while the operation runs.
  std::atomic<std::uint32_t> active;
  /// Not zero when SIGILL alone is a fault of the operation; always 0 here.
  std::atomic<std::uint32_t> expect_sigill;
  /// Where a fault goes.
  sigjmp_buf jump;
};

/// Calls `op(arg)`; a SIGSEGV or SIGBUS that it raises on this thread ends it. Both signals must
/// have been taken over with sigmux_init, else a fault kills the process. The jump out of `op` runs
/// no destructors: it must own nothing.
/// Returns 0 when `op` returned, with errno as `op` left it; 1 with EFAULT when it faulted, and 1
/// when the handler could not be set up. Not for signal handlers; takes the multiplexer's lock.
int sig_safe_op(void (*op)(void*), void* arg);

/// Stores `value` into the pointer-sized, aligned word at `destination`, in one sequentially
/// consistent store. Returns as sig_safe_op; on 1 nothing has been written.
int sig_safe_write(void* destination, std::intptr_t value);

/// The handler that sig_safe_op registers; `context` is its sig_safe_op_context. Leaves by a jump
/// for a fault of the running operation; returns 0, not claimed, for all others. For signal
/// context.
int fault_handler(sigmux_event* event, void* context);
