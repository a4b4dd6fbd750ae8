// SPDX-License-Identifier: Apache-2.0
// libmemleak_preload.so: plays the C library's part for the tracker, which it opens from its own
// directory.
//
// The constructor runs on the main thread when the dynamic linker has loaded the library
// (LD_PRELOAD), before those of all other libraries (-z initfirst). The exit handler runs on the
// thread that calls exit(), also in forked children. If anything fails, the program continues with
// the next allocator.
#include <dlfcn.h>
#include <limits.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "host/allocator_table.h"
#include "host/c_library.h"
#include "host/control_signal.h"
#include "host/control_thread.h"
#include "host/exit_report.h"
#include "host/next_allocator.h"
#include "host/print_error.h"
#include "host/replaced_functions.h"
#include "host/signal_actions.h"
#include "host/state.h"
#include "platform/linux/environment.h"
#include "protocol/protocol.h"

namespace host {
namespace {

constexpr char kVersion[] = "LIBC_MALLOC_QUARLE";
using Initialize = bool (*)(const MallocDispatch* next, bool* zygote_child, const char* options);
using Finalize = void (*)();

AllocatorTable tracked;
Finalize track_finalize = nullptr;
// No process on Linux is a child of a zygote. The tracker reads the flag as a 32-bit value.
uint32_t zygote_child = 0;

/// Writes the path of the tracker, in the directory of this library. Returns false if the directory
/// cannot be found.
bool TrackerPath(char (&path)[PATH_MAX]) {
  Dl_info self;
  if (dladdr(&tracked, &self) == 0 || self.dli_fname == nullptr) return false;
  const char* slash = strrchr(self.dli_fname, '/');
  const int directory = slash != nullptr ? static_cast<int>(slash - self.dli_fname) : 1;
  const int length = snprintf(path, sizeof path, "%.*s/%s", directory,
                              slash != nullptr ? self.dli_fname : ".", protocol::kTrackerLibrary);
  return length > 0 && static_cast<size_t>(length) < sizeof path;
}

/// Returns the tracker's entry "track_`name`"; null, with one line on stderr, if there is none.
void* TrackerEntry(void* tracker, const char* name) {
  char entry[64];
  snprintf(entry, sizeof entry, "track_%s", name);
  void* function = dlvsym(tracker, entry, kVersion);
  if (function == nullptr) {
    PrintError("%s has no %s@%s; running without tracking", protocol::kTrackerLibrary, entry,
               kVersion);
  }
  return function;
}

/// Opens the tracker, fills `tracked` and calls track_initialize. Returns false, with one line on
/// stderr, if any of these fails.
bool StartTracker() {
  char path[PATH_MAX];
  if (!TrackerPath(path)) {
    PrintError("cannot find the directory of %s; running without tracking",
               protocol::kPreloadLibrary);
    return false;
  }
  void* tracker = dlopen(path, RTLD_NOW | RTLD_LOCAL);
  if (tracker == nullptr) {
    PrintError("cannot open %s: %s; running without tracking", path, dlerror());
    return false;
  }
  for (const AllocatorEntry& entry : kAllocatorEntries) {
    void* function = TrackerEntry(tracker, entry.name);
    if (function == nullptr) return false;
    SetEntry(tracked.calls, entry, function);
  }
  tracked.mallinfo2 = NextAllocator().mallinfo2;
  const auto initialize = reinterpret_cast<Initialize>(TrackerEntry(tracker, "initialize"));
  track_finalize = reinterpret_cast<Finalize>(TrackerEntry(tracker, "finalize"));
  if (initialize == nullptr || track_finalize == nullptr) return false;
  CaptureActions(true);
  const bool initialized =
      initialize(&NextAllocator().calls, reinterpret_cast<bool*>(&zygote_child), "");
  CaptureActions(false);
  if (!initialized) {
    PrintError("%s could not be initialized; running without tracking", path);
    return false;
  }
  return true;
}

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

/// Carries out the commands in the environment.
void FollowEnvironment() {
  Command at_exit{0, 0};
  ReadNumber(protocol::kReportAtExitVariable, UINT64_MAX, at_exit.word);
  PrepareExit(at_exit, track_finalize);
  Command start{0, 0};
  uint64_t parameter = 0;
  if (!ReadNumber(protocol::kStartVariable, UINT64_MAX, start.word)) return;
  ReadNumber(protocol::kStartParameterVariable, UINT32_MAX, parameter);
  start.parameter = static_cast<uint32_t>(parameter);
  RunCommandHere(start);
}

__attribute__((constructor)) void Load(int argument_count, char** arguments, char** environment) {
  InitializeCLibrary(argument_count, arguments, environment);
  platform::CaptureEnvironment();
  FindNextAllocator();
  FindOperators();
  FindSignalFunctions();
  FindPrivilegeFunctions();
  FindExitFunctions();
  // Before the tracker installs its handler.
  int error = InstallControlSignal();
  if (!StartTracker()) return;
  InitializeState(argument_count, arguments);
  UseAllocator(tracked);
  MakeStateFile();
  if (error == 0) error = KeepCommandsAcrossForks();
  if (error != 0) PrintError("no command will be carried out: %s", strerror(error));
  FollowEnvironment();
}

}  // namespace
}  // namespace host
