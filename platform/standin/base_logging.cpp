// Android's base logging: lines go where the signal-safe log's go.
//
// Called by the hook engine, on any thread.
#include <android-base/logging.h>
#include <async_safe/log.h>

#include <cstdio>
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

LineStream& LineStream::operator<<(const char* text) {
  if (text != nullptr) text_ += text;
  return *this;
}

LineStream& LineStream::operator<<(std::uintptr_t number) {
  char digits[24];
  const int count = std::snprintf(digits, sizeof(digits), hexadecimal_ ? "%zx" : "%zu", number);
  text_.append(digits, static_cast<std::size_t>(count));
  return *this;
}

LineStream& LineStream::operator<<(std::ios_base& (*base)(std::ios_base&)) {
  hexadecimal_ = base == static_cast<std::ios_base& (*)(std::ios_base&)>(std::hex);
  return *this;
}

LogMessage::LogMessage(const char* file, unsigned int line, LogSeverity severity, const char* tag,
                       int error)
    : file_(file), line_(line), severity_(severity), tag_(tag), error_(error) {}

LogMessage::~LogMessage() {
  if (error_ != -1) text_ << ": " << std::strerror(error_);
  async_safe_format_log(Priority(severity_), tag_ != nullptr ? tag_ : platform::ProgramName(),
                        "%s:%u] %s", file_, line_, text_.text().c_str());
  if (severity_ == FATAL) std::abort();
}

}  // namespace android::base
