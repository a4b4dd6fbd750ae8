// SPDX-License-Identifier: Apache-2.0
// File access by direct system calls.
//
// The C library's open, read, write and close are cancellation points. A thread that the program
// cancels there would end inside the tracker and never release the tracker's locks. Any thread.
// Async-signal-safe.
#pragma once

#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#include <cstddef>

namespace platform {

/// open(2): returns a descriptor that the caller closes, or -1 and sets errno.
inline int RawOpen(const char* path, int flags, mode_t mode = 0) {
  return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, mode));
}

/// read(2): returns the number of bytes read, 0 at the end, or -1 and sets errno.
inline ssize_t RawRead(int file, void* buffer, std::size_t bytes) {
  return syscall(SYS_read, file, buffer, bytes);
}

/// write(2): returns the number of bytes written, or -1 and sets errno.
inline ssize_t RawWrite(int file, const void* bytes, std::size_t count) {
  return syscall(SYS_write, file, bytes, count);
}

/// close(2): returns 0, or -1 and sets errno.
inline int RawClose(int file) {
  return static_cast<int>(syscall(SYS_close, file));
}

}  // namespace platform
