// SPDX-License-Identifier: Apache-2.0
// Finds and watches the dump thread in /proc/self/task.
#include "host/report_thread.h"

#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>

#include "host/clock.h"
#include "platform/raw_calls.h"
#include "protocol/protocol.h"

namespace host {
namespace {

using protocol::kDumpThread;

// The id of the dump thread, as /proc lists it, or one of these.
constexpr int kNoThread = 0;
constexpr int kStarting = -1;
constexpr int kUnseen = -2;
std::atomic<int> dump_thread{kNoThread};

/// The state of a thread according to /proc.
struct ThreadState {
  bool dumps;      ///< it exists and has the dump thread's name
  bool is_active;  ///< it runs, is ready to run, or waits for a disk
  uint64_t ticks;  ///< processor time that it has used
};

/// Reads the state of the thread `id`. If that fails although the thread may exist (there may be no
/// free descriptor), the thread counts as existing.
ThreadState ReadState(int id) {
  char path[64];
  snprintf(path, sizeof path, "/proc/self/task/%d/stat", id);
  const int file = platform::RawOpen(path, O_RDONLY | O_CLOEXEC);
  if (file < 0) return {errno != ENOENT && errno != ESRCH, false, 0};
  // "ID (NAME) STATE" and numbers, of which the 11th and 12th are the times in user and system
  // mode.
  char text[512];
  const ssize_t length = platform::RawRead(file, text, sizeof text - 1);
  platform::RawClose(file);
  text[length > 0 ? length : 0] = '\0';
  const char* field = strchr(text, '(');
  constexpr size_t kNameBytes = sizeof kDumpThread - 1;
  if (field == nullptr || strncmp(field + 1, kDumpThread, kNameBytes) != 0 ||
      field[1 + kNameBytes] != ')') {
    return {false, false, 0};
  }
  field += kNameBytes + 3;
  const bool is_active = *field == 'R' || *field == 'D';
  uint64_t ticks = 0;
  for (int number = 1; number <= 12 && (field = strchr(field, ' ')) != nullptr; ++number) {
    ++field;
    if (number >= 11) ticks += strtoull(field, nullptr, 10);
  }
  return {true, is_active, ticks};
}

/// Returns the id of the thread that has the dump thread's name, kNoThread or kUnseen.
int FindDumpThread() {
  const int tasks = platform::RawOpen("/proc/self/task", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (tasks < 0) return kUnseen;
  // The kernel's record: u64 inode, s64 offset, u16 record length, u8 type, name.
  constexpr size_t kLengthOffset = 16;
  constexpr size_t kNameOffset = 19;
  alignas(8) char records[1024];
  int found = kNoThread;
  long filled;
  while (found == kNoThread &&
         (filled = syscall(SYS_getdents64, tasks, records, sizeof records)) > 0) {
    for (long at = 0; at < filled && found == kNoThread;) {
      uint16_t length;
      memcpy(&length, records + at + kLengthOffset, sizeof length);
      const int id = atoi(records + at + kNameOffset);
      if (id > 0 && ReadState(id).dumps) found = id;
      at += length;
    }
  }
  platform::RawClose(tasks);
  return found;
}

}  // namespace

void StartReport(void (*deliver)(void*), void* argument, const char* name) {
  dump_thread.store(kStarting);
  prctl(PR_SET_NAME, kDumpThread, 0, 0, 0);
  deliver(argument);
  prctl(PR_SET_NAME, name, 0, 0, 0);
  dump_thread.store(FindDumpThread());
}

Report CurrentReport() {
  int id = dump_thread.load();
  if (id == kNoThread) return Report::kNone;
  if (id == kUnseen) return Report::kUnknown;
  if (id == kStarting || ReadState(id).dumps) return Report::kRunning;
  // Only if the next dump thread was not started meanwhile.
  dump_thread.compare_exchange_strong(id, kNoThread);
  return Report::kNone;
}

bool WaitWhileReportRuns(int timeout_ms) {
  const int64_t start = NowMs();
  int64_t progress = start;
  uint64_t ticks = 0;
  while (CurrentReport() == Report::kRunning) {
    const int64_t now = NowMs();
    const int id = dump_thread.load();
    const ThreadState state = id > 0 ? ReadState(id) : ThreadState{};
    if (state.is_active || state.ticks != ticks) progress = now;
    ticks = state.ticks;
    if (now - start >= timeout_ms || now - progress >= kNoProgressMs) return false;
    SleepMs(1);
  }
  return true;
}

void ForgetReport() {
  dump_thread.store(kNoThread);
}

}  // namespace host
