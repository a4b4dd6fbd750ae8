// Linux stand-in for Android's log interface: its priorities, and the assertion that ends the
// process.
#pragma once

/// Priorities that the tree uses (Android: android/log.h).
enum {
  ANDROID_LOG_INFO = 4,
  ANDROID_LOG_WARN = 5,
  ANDROID_LOG_ERROR = 6,
  ANDROID_LOG_FATAL = 7,
};

extern "C" {

/// Logs at fatal priority under `tag` and ends the process with SIGABRT. The message is `format`
/// with its arguments, or "Assertion failed: CONDITION" when `format` is null. Any thread.
[[noreturn]] void __android_log_assert(const char* condition, const char* tag, const char* format,
                                       ...) __attribute__((format(printf, 3, 4)));

}  // extern "C"
