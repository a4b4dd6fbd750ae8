// SPDX-License-Identifier: Apache-2.0
// What the fuzz targets share: a check that ends the process, and an input behind a path.
//
// Used by every target, under libFuzzer and in the replay; one thread.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

/// What libFuzzer and the replay call with each input (owned by the caller). Returns 0.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace fuzz {

/// Ends the process with `what` unless `holds`: the form in which a fuzzer takes a failed check.
inline void Require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "not so: %s\n", what);
  std::abort();
}

/// A file without a name on any disk, for readers that take a path.
class MemoryFile {
 public:
  MemoryFile() : file_(memfd_create("fuzz", MFD_CLOEXEC)) {
    Require(file_ >= 0, "the kernel gives a file in memory");
  }
  ~MemoryFile() { close(file_); }
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;

  /// Opens the file from its beginning, as long as this object lives.
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
