// SPDX-License-Identifier: Apache-2.0
// libmemleak_preload.so: plays the C library's part for the tracker, which it opens from its own
// directory.
//
// If the library is preloaded (LD_PRELOAD), its constructor runs on the main thread before the
// constructors of all other libraries (-z initfirst). The exit handler runs on the thread that
// calls exit(), also in forked children. If a step fails, the program continues with the next
// allocator. If the library is loaded later, the constructor does nothing: see attach.cpp.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "host/allocator_table.h"
#include "host/c_library.h"
#include "host/control_signal.h"
#include "host/control_thread.h"
#include "host/exit_report.h"
#include "host/form.h"
#include "host/next_allocator.h"
#include "host/print_error.h"
#include "host/replaced_functions.h"
#include "host/signal_actions.h"
#include "host/state.h"
#include "host/tracker.h"
#include "platform/linux/environment.h"
#include "protocol/protocol.h"

namespace host {
namespace {

/// Reads a number, hexadecimal with "0x" or decimal, from the environment into `value`. Returns
/// false if the variable is unset or, with one line on stderr, is not a number up to `limit`.
bool ReadNumber(const char* name, uint64_t limit, uint64_t& value) {
  const char* text = getenv(name);
  if (text == nullptr || *text == '\0') return false;
  const bool hexadecimal = text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
  const char* digits = hexadecimal ? text + 2 : text;
  const char* allowed = hexadecimal ? "0123456789abcdefABCDEF" : "0123456789";
  const size_t length = strspn(digits, allowed);
  if (length > 0 && length <= 19 && digits[length] == '\0') {
    value = strtoull(digits, nullptr, hexadecimal ? 16 : 10);
    if (value <= limit) return true;
  }
  PrintError("%s=%s is not a number like 0x10 or 16; ignored", name, text);
  return false;
}

/// Carries out the start command of the environment, and registers its exit command.
void FollowEnvironment() {
  Command at_exit{0, 0};
  ReadNumber(protocol::kReportAtExitVariable, UINT64_MAX, at_exit.word);
  if (PrepareExit(at_exit, FinalizeTracker()) != 0) {
    PrintError("cannot register the exit handler; no report at exit");
  }
  Command start{0, 0};
  uint64_t parameter = 0;
  if (!ReadNumber(protocol::kStartVariable, UINT64_MAX, start.word)) return;
  ReadNumber(protocol::kStartParameterVariable, UINT32_MAX, parameter);
  start.parameter = static_cast<uint32_t>(parameter);
  RunCommandHere(start);
}

__attribute__((constructor)) void Load(int argument_count, char** arguments, char** environment) {
  if (!LoadedBeforeCLibrary()) {
    SetForm(Form::kDetached);
    return;
  }
  InitializeCLibrary(argument_count, arguments, environment);
  platform::CaptureEnvironment();
  FindNextAllocator();
  FindReplacedFunctions();
  // Before the tracker installs its handler.
  int error = InstallControlSignal();
  // Threads inherit the mask.
  BlockControlSignal(false);
  Reason reason;
  if (!StartTracker(reason)) {
    PrintError("%s; running without tracking", reason.text);
    return;
  }
  InitializeState(argument_count, arguments);
  UseAllocator(TrackedAllocator());
  MakeStateFile();
  if (error == 0) error = KeepCommandsAcrossForks();
  if (error != 0) PrintError("no command will be carried out: %s", strerror(error));
  FollowEnvironment();
}

}  // namespace
}  // namespace host
