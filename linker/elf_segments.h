// SPDX-License-Identifier: Apache-2.0
// The readable mapped parts of a loaded library, from its program headers.
//
// Used while a library is indexed, on any thread. A damaged dynamic section may contain any
// address, so the index checks every address here before it reads from it.
#pragma once

#include <link.h>

#include <cstdint>

namespace lumora::linker {

/// A view of the program headers of `info`; valid as long as they are.
class ElfSegments {
 public:
  explicit ElfSegments(const dl_phdr_info& info) : info_(info) {}

  /// Returns the number of readable bytes from `address` to the end of its PT_LOAD segment, or to
  /// the first page that a later, unreadable segment covers. 0 if `address` is not readable.
  std::uint64_t bytes_from(std::uint64_t address) const;

  /// Whether `bytes` bytes at `address` are in one readable segment and `address` is a multiple of
  /// `alignment` (a power of two).
  bool holds(std::uint64_t address, std::uint64_t bytes, std::uint64_t alignment) const;

 private:
  std::uint64_t readable_under_later(std::uint64_t index, std::uint64_t address,
                                     std::uint64_t bytes) const;

  const dl_phdr_info& info_;
};

}  // namespace lumora::linker
