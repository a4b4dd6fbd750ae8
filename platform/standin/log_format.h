// printf-like formatting that may run in a signal handler and inside an allocator.
//
// Used by the log, on any thread and in any context.
#pragma once

#include <cstdarg>
#include <cstddef>

namespace platform {

/// Formats into `text`, which has room for `limit` bytes (at least 1); the result is NUL-terminated
/// and cut to fit. Returns the length that the whole text would have.
///
/// Understands d i u x X p s c and %, the flags '0' and '-', widths and precisions (either may be
/// '*') and the lengths hh h l ll z, all with snprintf's meaning; a null pointer shows as 0x0 and a
/// null string as (null). From the first thing it does not know on, the format is copied as it is,
/// since the arguments that follow can no longer be told apart.
/// Allocates nothing, takes no lock, leaves errno alone.
std::size_t FormatText(char* text, std::size_t limit, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

/// As FormatText, with the arguments in a va_list.
std::size_t FormatTextVaList(char* text, std::size_t limit, const char* format,
                             std::va_list arguments) __attribute__((format(printf, 3, 0)));

}  // namespace platform
