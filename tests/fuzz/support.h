// SPDX-License-Identifier: Apache-2.0
// Shared by the fuzz targets: a check that ends the process, and an input with a path.
//
// Every target uses it, under libFuzzer and in the replay. One thread.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

/// libFuzzer and the replay call this with each input (owned by the caller). Returns 0.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace fuzz {

/// Ends the process with the message `what` unless `holds`. A fuzzer sees this as a failed check.
inline void Require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "not so: %s\n", what);
  std::abort();
}

/// A file without a name on disk, for readers that take a path.
class MemoryFile {
 public:
  MemoryFile() : file_(memfd_create("fuzz", MFD_CLOEXEC)) {
    Require(file_ >= 0, "the kernel gives a file in memory");
  }
  ~MemoryFile() { close(file_); }
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;

  /// A path that opens the file at its start, valid while this object exists.
  std::string Path() const { return "/proc/self/fd/" + std::to_string(file_); }

  int Number() const { return file_; }

  void Write(const std::uint8_t* data, std::size_t size) const {
    Require(ftruncate(file_, 0) == 0 && pwrite(file_, data, size, 0) == static_cast<ssize_t>(size),
            "an input fits into memory");
  }

 private:
  int file_;
};

}  // namespace fuzz
