// SPDX-License-Identifier: Apache-2.0
// Replacement for libbase's logging. Any thread.
#include <android-base/logging.h>
#include <async_safe/log.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/program_name.h"

namespace android::base {

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

LogMessage::~LogMessage() {
  async_safe_format_log(severity_ == FATAL ? ANDROID_LOG_FATAL : ANDROID_LOG_ERROR,
                        platform::ProgramName(), "%s:%u] %s", file_, line_, text_.text());
  if (severity_ == FATAL) std::abort();
}

}  // namespace android::base
