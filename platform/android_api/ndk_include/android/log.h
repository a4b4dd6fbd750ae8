// SPDX-License-Identifier: Apache-2.0
// Replacement for liblog's header, for Linux.
#pragma once

/// The priorities that the tree uses, with liblog's values.
enum {
  ANDROID_LOG_INFO = 4,
  ANDROID_LOG_ERROR = 6,
  ANDROID_LOG_FATAL = 7,
};

extern "C" {

/// Logs the formatted message at fatal priority under `tag` and aborts the process. `condition` is
/// unused here. Any thread; not for signal handlers.
[[noreturn]] void __android_log_assert(const char* condition, const char* tag, const char* format,
                                       ...) __attribute__((format(printf, 3, 4)));

}  // extern "C"
