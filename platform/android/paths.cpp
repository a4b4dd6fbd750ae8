// Where the tracker's files are on a device. The directories are the system's to make.
#include "platform/paths.h"

#include <fcntl.h>

#include "protocol/protocol.h"

namespace platform {

std::FILE* OpenReportFile() {
  return std::fopen(protocol::kReportPath, "w");
}

int OpenExceptionDevice(std::string& path) {
  path = protocol::kExceptionDevice;
  return open(path.c_str(), O_WRONLY);
}

}  // namespace platform
