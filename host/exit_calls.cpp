// SPDX-License-Identifier: Apache-2.0
// The ways to end a process that run no exit handlers.
#include <stdlib.h>
#include <unistd.h>

#include "host/exit_report.h"
#include "host/exports.h"
#include "host/next_function.h"
#include "host/replaced_functions.h"

namespace host {
namespace {

NextFunction<void(int)> next_exit{"_exit"};

}  // namespace

void FindExitFunctions() {
  next_exit.Find();
}

}  // namespace host

MEMLEAK_EXPORT void _exit(int status) {
  host::EndAbruptly();
  host::next_exit(status);
  __builtin_unreachable();
}

MEMLEAK_EXPORT void _Exit(int status) noexcept {
  host::EndAbruptly();
  host::next_exit(status);
  __builtin_unreachable();
}
