// SPDX-License-Identifier: Apache-2.0
// The loader's only messages: one line on stderr when something does not work.
#pragma once

namespace host {

/// Writes "memleak: ", the formatted text (cut at 1000 bytes) and a newline to stderr in one piece.
/// Any thread; may allocate. Keeps errno.
__attribute__((format(printf, 1, 2))) void PrintError(const char* format, ...);

}  // namespace host
