// SPDX-License-Identifier: Apache-2.0
// A subset of printf for code that runs in signal handlers and inside the allocator.
#pragma once

#include <cstdarg>
#include <cstddef>

namespace platform {

/// Formats into `text`, which has room for `limit` bytes (at least 1). The result is NUL-terminated
/// and cut to fit. Returns the length of the whole text in bytes.
///
/// Knows the conversions d u x p s c %, the flag 0, a width, a precision for s (a number or *), and
/// the lengths l ll z, with the meaning that they have in printf. A null pointer prints as 0x0. An
/// unknown conversion and what follows it are copied unchanged.
/// Any thread. Async-signal-safe: allocates nothing, takes no lock, keeps errno.
std::size_t FormatText(char* text, std::size_t limit, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

/// FormatText with the arguments in a va_list.
std::size_t FormatTextVaList(char* text, std::size_t limit, const char* format,
                             std::va_list arguments) __attribute__((format(printf, 3, 0)));

}  // namespace platform
