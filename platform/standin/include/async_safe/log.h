// Stand-in for the platform's async-signal-safe logger.
//
// On Linux lines go to the file that the environment variable MEMLEAK_TRACKER_LOG names ("stderr"
// for the error output; "%p" stands for the process id) and nowhere when it is unset, so that a
// watched program's own output is never touched. On Android they go to the system's log.
#pragma once

#include <android/log.h>

#include <cstdarg>

extern "C" {

/// Formats one log line and writes it. On Linux that is a single write(2) of
/// "<seconds>.<milliseconds> <pid> <tid> <I|W|E|F> <tag>: <message>", and a newline unless the
/// message ends in one.
///
/// Understands the conversions d i u x X p s c and %, the flags '0' and '-', widths, precisions and
/// the lengths hh h l ll z. A line is cut at 1023 bytes. Keeps errno. Returns the length of the
/// line in bytes, whether or not a log is open.
/// Allocates nothing, takes no lock and calls nothing that does: safe in a signal handler.
int async_safe_format_log(int priority, const char* tag, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

/// As async_safe_format_log, with the arguments in a va_list.
int async_safe_format_log_va_list(int priority, const char* tag, const char* format,
                                  std::va_list arguments) __attribute__((format(printf, 3, 0)));

}  // extern "C"
