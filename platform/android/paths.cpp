// SPDX-License-Identifier: Apache-2.0
// The tracker's files on Android. The system creates their directories.
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
