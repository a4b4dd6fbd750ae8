// SPDX-License-Identifier: Apache-2.0
// Replacement for bionic's async-signal-safe log.
//
// Linux: lines are appended to the file that the environment variable MEMLEAK_TRACKER_LOG names
// ("stderr" is standard error, "%p" the process id). Without the variable there is no log, so the
// output of a watched program never changes. Android: lines go to the system log.
#pragma once

#include <android/log.h>

extern "C" {

/// Formats one line and writes it under `tag`. `priority` is an ANDROID_LOG_ constant. On Linux the
/// line is "<seconds>.<milliseconds> <pid> <tid> <I|W|E|F> <tag>: <message>", ends in one newline
/// and is written by one write(2).
///
/// `format` may use what platform::FormatText knows. Lines are cut at 1023 bytes. Keeps errno.
/// Returns the length of the line in bytes, also without a log.
/// Any thread. Async-signal-safe: allocates nothing and takes no lock.
int async_safe_format_log(int priority, const char* tag, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

}  // extern "C"
