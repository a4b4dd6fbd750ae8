// SPDX-License-Identifier: Apache-2.0
// The part of liblog that the tree uses.
#pragma once

typedef enum android_LogPriority {
  ANDROID_LOG_UNKNOWN = 0,
  ANDROID_LOG_DEFAULT,
  ANDROID_LOG_VERBOSE,
  ANDROID_LOG_DEBUG,
  ANDROID_LOG_INFO,
  ANDROID_LOG_WARN,
  ANDROID_LOG_ERROR,
  ANDROID_LOG_FATAL,
  ANDROID_LOG_SILENT,
} android_LogPriority;

extern "C" {
int __android_log_write(int priority, const char* tag, const char* text);
void __android_log_assert(const char* condition, const char* tag, const char* format, ...)
    __attribute__((__noreturn__)) __attribute__((__format__(printf, 3, 4)));
}
