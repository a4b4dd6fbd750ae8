// The tracker's files on Android. The system creates their directories.
#include "platform/paths.h"

#include <fcntl.h>

namespace platform {

std::FILE* OpenReportFile() {
  return std::fopen("/data/log/reliability/allocations_dump", "w");
}

int OpenExceptionDevice(std::string& path) {
  path = "/dev/kxlog_exception";
  return open(path.c_str(), O_WRONLY);
}

}  // namespace platform
