// The parts of a loaded library that are mapped and can be read, from its program headers.
//
// Used while a library is indexed, on any thread. A damaged dynamic section may name any address:
// nothing of it is followed before it was asked for here.
#pragma once

#include <link.h>

#include <cstdint>

namespace lumora::linker {

/// A view of `info`'s program headers; valid as long as they are.
class ElfSegments {
 public:
  explicit ElfSegments(const dl_phdr_info& info) : info_(info) {}

  /// Bytes from `address` to the end of the readable PT_LOAD segment that holds it, or to the first
  /// page that a later segment covers with one that cannot be read; 0 outside.
  std::uint64_t bytes_from(std::uint64_t address) const;

  /// Whether `bytes` bytes at `address` lie in one readable segment, `address` being a multiple of
  /// `alignment` (a power of two).
  bool holds(std::uint64_t address, std::uint64_t bytes, std::uint64_t alignment) const;

 private:
  std::uint64_t left_by_later(std::uint64_t index, std::uint64_t address,
                              std::uint64_t bytes) const;

  const dl_phdr_info& info_;
};

}  // namespace lumora::linker
