// SPDX-License-Identifier: Apache-2.0
// The file addresses that the executable mappings of a library show, and the page size that they
// were aligned to. Pure functions of a file.
#pragma once

#include <gelf.h>

#include <cstdint>
#include <vector>

namespace memleak {

/// The file addresses that one executable mapping shows.
struct CodeRange {
  std::uint64_t begin = 0;
  std::uint64_t end = 0;
  bool operator==(const CodeRange&) const = default;
};

/// The executable mappings of `elf` (may be null) on a machine with pages of `page_bytes`. Segments
/// that are adjacent in file and memory become one mapping.
std::vector<CodeRange> CodeRanges(Elf* elf, std::uint64_t page_bytes);

/// Guesses the page size of the machine that recorded frames at `offsets` in the executable mapping
/// of `elf`. A report does not contain it, and arm64 machines differ. A frame is a call or the
/// instruction after one, so with the right size most offsets lead to calls. Returns the smallest
/// size if it makes no difference, if the file has no code, and for other architectures.
std::uint64_t GuessPageBytes(Elf* elf, const std::vector<std::uint64_t>& offsets);

}  // namespace memleak
