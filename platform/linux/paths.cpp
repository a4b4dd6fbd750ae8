// Where the tracker's files are on Linux: the device's own paths below the root directory.
#include "platform/paths.h"

#include <sys/stat.h>

#include "platform/linux/root.h"

namespace platform {
namespace {

/// Makes every directory that leads to `path`. What cannot be made shows when the file is opened.
void MakeParents(char* path) {
  for (char* slash = path + 1; *slash != '\0'; ++slash) {
    if (*slash != '/') continue;
    *slash = '\0';
    mkdir(path, 0755);
    *slash = '/';
  }
}

}  // namespace

std::string ReportPath() {
  char path[kPathBytes];
  RootedPath("/data/log/reliability/allocations_dump", path);
  MakeParents(path);
  return path;
}

std::string ExceptionDevicePath() {
  char path[kPathBytes];
  RootedPath("/dev/kxlog_exception", path);
  return path;
}

}  // namespace platform
