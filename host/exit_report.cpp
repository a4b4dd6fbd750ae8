// Asks for the last report and waits for its file; see the header.
#include "host/exit_report.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "host/say.h"

namespace host {
namespace {

constexpr char kReportBelowRoot[] = "/data/log/reliability/allocations_dump";
// As much as the tracker takes for a path.
constexpr size_t kPathBytes = 4352;
constexpr int kWaitSeconds = 60;
// A dump thread has begun by then, however busy the machine. It collects the whole report before it
// writes the first byte, so a file that is not there yet says nothing while the thread runs.
constexpr int64_t kQuietMs = 3000;
constexpr char kDumpThread[] = "MemDumpThread\n";
// The report commands of the native heap, mmap, ion and gpu.
constexpr uint64_t kReportBits = 0x44440;

char root_pattern[kPathBytes];

/// The report's path: the root, each "%p" in it replaced by this process's id, and the fixed rest.
void ReportPath(char (&path)[kPathBytes]) {
  size_t length = 0;
  for (const char* p = root_pattern; *p != '\0' && length + 16 < kPathBytes; ++p) {
    if (p[0] == '%' && p[1] == 'p') {
      length += static_cast<size_t>(snprintf(path + length, kPathBytes - length, "%d", getpid()));
      ++p;
    } else {
      path[length++] = *p;
    }
  }
  while (length > 0 && path[length - 1] == '/') --length;
  snprintf(path + length, kPathBytes - length, "%s", kReportBelowRoot);
}

/// Makes sure that the report can be written and that there is no old one. Returns 0 or an errno
/// value.
int PrepareFile(char* path) {
  int first_error = 0;
  for (char* slash = path + 1; *slash != '\0'; ++slash) {
    if (*slash != '/') continue;
    *slash = '\0';
    if (mkdir(path, 0755) != 0 && errno != EEXIST && first_error == 0) first_error = errno;
    *slash = '/';
  }
  unlink(path);
  const int file = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  // Why a directory could not be made says more than that it is missing.
  if (file < 0) return errno == ENOENT && first_error != 0 ? first_error : errno;
  close(file);
  unlink(path);
  return 0;
}

/// Whether the file's last bytes are "END"; `size` becomes its size, -1 while there is none.
bool EndsInEnd(const char* path, int64_t& size) {
  size = -1;
  const int file = open(path, O_RDONLY | O_CLOEXEC);
  if (file < 0) return false;
  struct stat status;
  char tail[3];
  if (fstat(file, &status) == 0) size = status.st_size;
  const bool complete = size >= 3 && pread(file, tail, sizeof tail, size - 3) == 3 &&
                        memcmp(tail, "END", sizeof tail) == 0;
  close(file);
  return complete;
}

/// Whether a thread of this process is at work on a report. True when that cannot be told.
bool DumpThreadRuns() {
  DIR* tasks = opendir("/proc/self/task");
  if (tasks == nullptr) return true;
  bool found = false;
  for (const dirent* task = readdir(tasks); task != nullptr && !found; task = readdir(tasks)) {
    char comm[sizeof task->d_name + 8];
    snprintf(comm, sizeof comm, "%s/comm", task->d_name);
    const int file = openat(dirfd(tasks), comm, O_RDONLY | O_CLOEXEC);
    if (file < 0) continue;
    char name[32];
    const ssize_t length = read(file, name, sizeof name);
    found =
        length == sizeof kDumpThread - 1 && memcmp(name, kDumpThread, sizeof kDumpThread - 1) == 0;
    close(file);
  }
  closedir(tasks);
  return found;
}

int64_t NowMs() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

/// Waits for the whole report of this command. Gives up, with one line on stderr, when nobody
/// writes it any more.
void WaitForReport(const char* path) {
  const int64_t start = NowMs();
  int64_t changed = start;
  int64_t last_size = -1;
  int64_t size;
  // Found out before the file is looked at: a thread may write the end just before it goes.
  bool abandoned = false;
  while (!EndsInEnd(path, size)) {
    const int64_t now = NowMs();
    if (size != last_size) {
      last_size = size;
      changed = now;
    } else if (abandoned) {
      Say("no complete report in %s, and nobody writes it any more; is the disk full?", path);
      return;
    }
    if (now - start > int64_t{kWaitSeconds} * 1000) {
      Say("no complete report in %s after %d s", path, kWaitSeconds);
      return;
    }
    const bool quiet = now - changed >= kQuietMs;
    abandoned = quiet && !DumpThreadRuns();
    // Short steps at first: most reports are there within some milliseconds.
    const timespec step{0, quiet ? 50'000'000 : 2'000'000};
    nanosleep(&step, nullptr);
  }
}

}  // namespace

void CaptureReportRoot() {
  const char* root = getenv("MEMLEAK_TRACKER_ROOT");
  snprintf(root_pattern, sizeof root_pattern, "%s", root != nullptr ? root : "");
}

void WaitForEarlierReports() {
  if (!CommandsWereCarriedOut()) return;
  constexpr int64_t kLongestMs = 10'000;
  const int64_t start = NowMs();
  while (DumpThreadRuns() && NowMs() - start < kLongestMs) {
    const timespec step{0, 5'000'000};
    nanosleep(&step, nullptr);
  }
}

void ReportAtExit(const Command& command) {
  if ((command.word & kReportBits) == 0) {
    Say("no report at exit: MEMLEAK_TRACKER_REPORT_AT_EXIT=0x%llx is no command to report; use "
        "0x40",
        static_cast<unsigned long long>(command.word));
    return;
  }
  static char path[kPathBytes];
  ReportPath(path);
  int error = PrepareFile(path);
  if (error != 0) {
    Say("no report at exit: cannot write %s: %s; is the root directory writable?", path,
        strerror(error));
    return;
  }
  error = RunCommand(command, kWaitSeconds * 1000);
  if (error != 0) {
    Say("no report at exit: the command could not be carried out: %s", strerror(error));
    return;
  }
  WaitForReport(path);
}

}  // namespace host
