// Asks for the last report and waits for its file; see the header.
#include "host/exit_report.h"

#include <fcntl.h>
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

bool EndsInEnd(const char* path) {
  const int file = open(path, O_RDONLY | O_CLOEXEC);
  if (file < 0) return false;
  struct stat status;
  char tail[3];
  const bool complete = fstat(file, &status) == 0 && status.st_size >= 3 &&
                        pread(file, tail, sizeof tail, status.st_size - 3) == 3 &&
                        memcmp(tail, "END", sizeof tail) == 0;
  close(file);
  return complete;
}

}  // namespace

void CaptureReportRoot() {
  const char* root = getenv("MEMLEAK_TRACKER_ROOT");
  snprintf(root_pattern, sizeof root_pattern, "%s", root != nullptr ? root : "");
}

void ReportAtExit(const Command& command) {
  static char path[kPathBytes];
  ReportPath(path);
  unlink(path);
  const int error = RunCommand(command, kWaitSeconds * 1000);
  if (error != 0) {
    Say("no report at exit: the command could not be carried out: %s", strerror(error));
    return;
  }
  // Short steps: most reports are there within some milliseconds.
  const timespec step{0, 2'000'000};
  time_t give_up = time(nullptr) + kWaitSeconds;
  while (!EndsInEnd(path)) {
    if (time(nullptr) > give_up) {
      Say("no complete report in %s after %d s; is the directory writable?", path, kWaitSeconds);
      return;
    }
    nanosleep(&step, nullptr);
  }
}

}  // namespace host
