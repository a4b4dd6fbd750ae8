// Linux stand-in for Android's log interface: the assertion that ends the process.
#pragma once

extern "C" {

/// Logs at fatal priority under `tag` and ends the process with SIGABRT. The message is `format`
/// with its arguments, or "Assertion failed: CONDITION" when `format` is null. Any thread.
[[noreturn]] void __android_log_assert(const char* condition, const char* tag, const char* format,
                                       ...) __attribute__((format(printf, 3, 4)));

}  // extern "C"
