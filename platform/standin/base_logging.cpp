// Android's base logging: lines go where the signal-safe log's go.
//
// Called by the hook engine, on any thread.
#include <android-base/logging.h>
#include <async_safe/log.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/program_name.h"

namespace android::base {

namespace {

int Priority(LogSeverity severity) {
  switch (severity) {
    case WARNING:
      return ANDROID_LOG_WARN;
    case ERROR:
      return ANDROID_LOG_ERROR;
    case FATAL_WITHOUT_ABORT:
    case FATAL:
      return ANDROID_LOG_FATAL;
    case VERBOSE:
    case DEBUG:
    case INFO:
      break;
  }
  return ANDROID_LOG_INFO;
}

}  // namespace

LogMessage::LogMessage(const char* file, unsigned int line, LogSeverity severity, const char* tag,
                       int error)
    : file_(file), line_(line), severity_(severity), tag_(tag), error_(error) {}

LogMessage::~LogMessage() {
  if (error_ != -1) text_ << ": " << std::strerror(error_);
  async_safe_format_log(Priority(severity_), tag_ != nullptr ? tag_ : platform::ProgramName(),
                        "%s:%u] %s", file_, line_, text_.str().c_str());
  if (severity_ == FATAL) std::abort();
}

}  // namespace android::base
