// File access by bare system calls, for code that runs inside the program's own threads.
//
// The C library's open, read, write and close are cancellation points: a thread that the program
// cancels would end inside the tracker, which then holds a lock or a count for ever. The log, the
// property reader and the reader of page protections go through here, on any thread and in signal
// handlers.
#pragma once

#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#include <cstddef>

namespace platform {

/// As open(2): a descriptor that the caller closes, or -1 and errno.
inline int RawOpen(const char* path, int flags, mode_t mode = 0) {
  return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, mode));
}

/// As read(2): the number of bytes read, 0 at the end, or -1 and errno.
inline ssize_t RawRead(int file, void* buffer, std::size_t bytes) {
  return syscall(SYS_read, file, buffer, bytes);
}

/// As write(2): the number of bytes written, or -1 and errno.
inline ssize_t RawWrite(int file, const void* bytes, std::size_t count) {
  return syscall(SYS_write, file, bytes, count);
}

/// As close(2): 0, or -1 and errno.
inline int RawClose(int file) {
  return static_cast<int>(syscall(SYS_close, file));
}

}  // namespace platform
