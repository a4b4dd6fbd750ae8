// Android's base logging: lines go where the signal-safe log's go.
//
// Called by the hook engine, on any thread.
#include <android-base/logging.h>
#include <async_safe/log.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

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
  if (text == nullptr) return *this;
  const std::size_t bytes = std::min(std::strlen(text), kLineBytes - 1 - length_);
  std::memcpy(text_ + length_, text, bytes);
  length_ += bytes;
  text_[length_] = '\0';
  return *this;
}

LineStream& LineStream::operator<<(std::uintptr_t number) {
  char digits[24];
  std::snprintf(digits, sizeof(digits), hexadecimal_ ? "%zx" : "%zu", number);
  return *this << static_cast<const char*>(digits);
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
                        "%s:%u] %s", file_, line_, text_.text());
  if (severity_ == FATAL) std::abort();
}

}  // namespace android::base
