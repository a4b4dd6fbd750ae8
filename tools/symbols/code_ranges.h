// Where a library's code lies in memory: which file addresses its executable mappings show, and how
// large the pages were that they begin at. Called by the symbolizer; pure functions of a file.
#pragma once

#include <gelf.h>

#include <cstdint>
#include <vector>

namespace memleak {

inline constexpr std::uint64_t kSmallestPage = 4096;

/// The file address of the byte `offset` bytes into the mapping of an executable segment, given the
/// segment's p_vaddr: mappings begin at borders of pages, of `page_bytes` (a power of two) each.
constexpr std::uint64_t FileAddress(std::uint64_t offset, std::uint64_t segment_vaddr,
                                    std::uint64_t page_bytes = kSmallestPage) {
  return offset + (segment_vaddr & ~(page_bytes - 1));
}

/// A stretch of file addresses that one executable mapping shows.
struct CodeRange {
  std::uint64_t begin = 0;
  std::uint64_t end = 0;
  bool operator==(const CodeRange&) const = default;
};

/// The executable mappings of `elf` (null for none) on a machine with pages of `page_bytes`.
/// Segments that lie side by side in the file and in memory become one mapping.
std::vector<CodeRange> CodeRanges(Elf* elf, std::uint64_t page_bytes);

/// The page size of the machine on which frames lay `offsets` bytes into the executable mapping of
/// `elf`. A report does not tell it, and arm64 machines differ; but a frame is a call or the place
/// behind one, so that the right size makes the offsets lead to calls. The smallest page size where
/// it makes no difference, where the file has no code in it, and for other architectures.
std::uint64_t GuessPageBytes(Elf* elf, const std::vector<std::uint64_t>& offsets);

}  // namespace memleak
