// SPDX-License-Identifier: Apache-2.0
// libmemleak_preload.so: plays the C library's part for the tracker, which it opens from its own
// directory.
//
// The constructor runs on the main thread when the dynamic linker has loaded the library
// (LD_PRELOAD), before `main`. The exit handler runs on the thread that calls exit(), also in
// forked children. If anything fails, the program continues with the next allocator.
#include <dlfcn.h>
#include <limits.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "host/allocator_table.h"
#include "host/control_thread.h"
#include "host/exit_report.h"
#include "host/next_allocator.h"
#include "host/print_error.h"
#include "protocol/protocol.h"

namespace host {
namespace {

constexpr char kVersion[] = "LIBC_MALLOC_QUARLE";
constexpr int kStartWaitMs = 10'000;
// How long an exit waits for a running command. If the command takes longer, the tracker is not
// finalized, which is harmless at exit.
constexpr int kExitWaitMs = 5'000;

using Initialize = bool (*)(const MallocDispatch* next, bool* zygote_child, const char* options);
using Finalize = void (*)();

AllocatorTable tracked;
Finalize track_finalize = nullptr;
// No process on Linux is a child of a zygote. The tracker reads the flag as a 32-bit value.
uint32_t zygote_child = 0;
Command exit_command{0, 0};

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
  CatchLateCommands();
  if (!initialize(&NextAllocator().calls, reinterpret_cast<bool*>(&zygote_child), "")) {
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

/// Registered with atexit. It runs after the destructors of the program's static objects and before
/// those of the tracker.
void AtExit() {
  WaitForEarlierReports();
  if (exit_command.word != 0) ReportAtExit(exit_command);
  // The entries stay in place and forward.
  if (StopControlThread(kExitWaitMs)) track_finalize();
}

/// Carries out the commands in the environment.
void FollowEnvironment() {
  ReadNumber(protocol::kReportAtExitVariable, UINT64_MAX, exit_command.word);
  Command start{0, 0};
  uint64_t parameter = 0;
  if (!ReadNumber(protocol::kStartVariable, UINT64_MAX, start.word)) return;
  ReadNumber(protocol::kStartParameterVariable, UINT32_MAX, parameter);
  start.parameter = static_cast<uint32_t>(parameter);
  const int error = RunCommand(start, kStartWaitMs);
  if (error != 0) PrintError("the start command could not be carried out: %s", strerror(error));
}

__attribute__((constructor)) void Load() {
  FindNextAllocator();
  if (!StartTracker()) {
    RestoreControlSignal();
    return;
  }
  UseAllocator(tracked);
  int error = StartControlThread();
  if (error == 0) error = KeepControlThreadAcrossForks();
  if (error != 0) {
    PrintError("cannot start the control thread: %s; no command will be carried out",
               strerror(error));
  }
  if (atexit(AtExit) != 0) PrintError("cannot register the exit handler; no report at exit");
  FollowEnvironment();
}

}  // namespace
}  // namespace host
