// SPDX-License-Identifier: Apache-2.0
// The tracker's files on Linux: Android's paths below the root directory.
#include "platform/paths.h"

#include <android/log.h>
#include <async_safe/log.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/linux/root.h"
#include "platform/published_state.h"
#include "protocol/protocol.h"

namespace platform {

std::FILE* OpenReportFile() {
  char path[kPathBytes];
  protocol::Refusal refusal;
  const int file = OpenRooted(protocol::kReportPath, protocol::Use::kReplace, path, refusal);
  if (file < 0) {
    async_safe_format_log(ANDROID_LOG_ERROR, protocol::kLogTag, "cannot write a report: %.*s: %s",
                          static_cast<int>(refusal.path_bytes), path, refusal.Reason());
    PublishReportFailure(refusal.error, "cannot write %.*s: %s",
                         static_cast<int>(refusal.path_bytes), path, refusal.Reason());
    return nullptr;
  }
  std::FILE* const stream = fdopen(file, "w");
  if (stream == nullptr) {
    PublishReportFailure(errno, "cannot write %s: %s", path, std::strerror(errno));
    close(file);
  }
  return stream;
}

int OpenExceptionDevice(std::string& path) {
  char rooted[kPathBytes];
  protocol::Refusal refusal;
  const int device =
      OpenRooted(protocol::kExceptionDevice, protocol::Use::kDevice, rooted, refusal);
  const int saved_errno = errno;
  path = rooted;
  errno = saved_errno;
  return device;
}

}  // namespace platform
