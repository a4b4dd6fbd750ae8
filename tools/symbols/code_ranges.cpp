// SPDX-License-Identifier: Apache-2.0
#include "tools/symbols/code_ranges.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>

namespace memleak {
namespace {

// The page sizes of arm64. The alignment of a file's segments limits them.
constexpr std::array<std::uint64_t, 3> kPageSizes = {4096, 16384, 65536};
constexpr std::uint64_t kSmallestPage = kPageSizes.front();
constexpr std::uint64_t kInstructionBytes = 4;

std::vector<GElf_Phdr> CodeSegments(Elf* elf) {
  std::vector<GElf_Phdr> segments;
  std::size_t count = 0;
  if (elf == nullptr || elf_getphdrnum(elf, &count) != 0) return segments;
  for (std::size_t i = 0; i < count; ++i) {
    GElf_Phdr segment;
    if (gelf_getphdr(elf, static_cast<int>(i), &segment) == nullptr) continue;
    if (segment.p_type == PT_LOAD && (segment.p_flags & PF_X) != 0) segments.push_back(segment);
  }
  return segments;
}

/// The instructions of a file, by address.
class Instructions {
 public:
  explicit Instructions(Elf* elf) : segments_(CodeSegments(elf)) {
    bytes_ = elf_rawfile(elf, &size_);
  }

  bool IsCall(std::uint64_t address) const {
    for (const GElf_Phdr& segment : segments_) {
      const std::uint64_t into = address - segment.p_vaddr;
      if (address < segment.p_vaddr || into >= segment.p_filesz) continue;
      const std::uint64_t at = segment.p_offset + into;
      if (bytes_ == nullptr || at < into || size_ < kInstructionBytes ||
          at > size_ - kInstructionBytes) {
        return false;
      }
      std::uint32_t word = 0;  // little-endian, as this machine is
      std::memcpy(&word, bytes_ + at, sizeof word);
      const bool direct = (word & 0xfc000000U) == 0x94000000U;    // bl
      const bool indirect = (word & 0xfffffc1fU) == 0xd63f0000U;  // blr
      return direct || indirect;
    }
    return false;
  }

  // A frame is a call if its pc was moved back from the return address, by a byte or by a whole
  // instruction. Otherwise it follows a call.
  bool IsFrame(std::uint64_t address) const {
    const std::uint64_t instruction = address & ~(kInstructionBytes - 1);
    return IsCall(instruction) ||
           (instruction == address && IsCall(instruction - kInstructionBytes));
  }

 private:
  std::vector<GElf_Phdr> segments_;
  const char* bytes_ = nullptr;
  std::size_t size_ = 0;
};

}  // namespace

std::vector<CodeRange> CodeRanges(Elf* elf, std::uint64_t page_bytes) {
  std::vector<CodeRange> ranges;
  std::uint64_t shift = 0;
  for (const GElf_Phdr& segment : CodeSegments(elf)) {
    // Mappings start at a multiple of the page size.
    const std::uint64_t begin = segment.p_vaddr & ~(page_bytes - 1);
    const std::uint64_t end = segment.p_vaddr + segment.p_memsz;
    const std::uint64_t distance = segment.p_vaddr - segment.p_offset;
    if (!ranges.empty() && distance == shift &&
        begin == ((ranges.back().end + page_bytes - 1) & ~(page_bytes - 1))) {
      ranges.back().end = end;
    } else {
      ranges.push_back({begin, end});
    }
    shift = distance;
  }
  return ranges;
}

std::uint64_t GuessPageBytes(Elf* elf, const std::vector<std::uint64_t>& offsets) {
  GElf_Ehdr header;
  if (elf == nullptr || gelf_getehdr(elf, &header) == nullptr || header.e_machine != EM_AARCH64) {
    return kSmallestPage;
  }
  std::uint64_t largest = kPageSizes.back();
  for (const GElf_Phdr& segment : CodeSegments(elf)) largest = std::min(largest, segment.p_align);
  const Instructions instructions(elf);
  const std::vector<CodeRange> smallest = CodeRanges(elf, kSmallestPage);
  std::uint64_t best = kSmallestPage;
  // Less than half of the frames are matches by chance: data, or code of another build.
  std::size_t most = offsets.size() / 2;
  for (const std::uint64_t page_bytes : kPageSizes) {
    const std::vector<CodeRange> ranges = CodeRanges(elf, page_bytes);
    if (page_bytes > largest) break;
    if (page_bytes > kSmallestPage && ranges == smallest) continue;
    const auto frames = std::count_if(offsets.begin(), offsets.end(), [&](std::uint64_t offset) {
      return std::any_of(ranges.begin(), ranges.end(), [&](const CodeRange& range) {
        return offset < range.end - range.begin && instructions.IsFrame(range.begin + offset);
      });
    });
    if (static_cast<std::size_t>(frames) <= most) continue;
    most = static_cast<std::size_t>(frames);
    best = page_bytes;
  }
  return best;
}

}  // namespace memleak
