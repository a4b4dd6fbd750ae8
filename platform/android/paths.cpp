// Where the tracker's files are on a device. The directories are the system's to make.
#include "platform/paths.h"

namespace platform {

std::string ReportPath() {
  return "/data/log/reliability/allocations_dump";
}

std::string ExceptionDevicePath() {
  return "/dev/kxlog_exception";
}

}  // namespace platform
