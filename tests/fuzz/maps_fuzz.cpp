// SPDX-License-Identifier: Apache-2.0
// Fuzz target: the reader of the kernel's list of mappings. A program can choose the names at the
// ends of the lines. One thread.
//
// For all input, a lookup returns the mapping that contains the address. A mapping can be looked up
// if it overlaps no earlier one.

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "backtrace/MapData.h"
#include "tests/fuzz/support.h"
#include "tracker/control/MemTrackControl.h"

namespace {

using Ranges = std::vector<std::pair<std::uint64_t, std::uint64_t>>;

constexpr std::size_t kPieceBytes = 1023;
/// More mappings only make a run slower.
constexpr std::size_t kMaxRanges = 64;

/// The ranges that the index must contain, found by a simple linear search. The rest of a line that
/// is too long counts as a line.
Ranges ExpectedRanges(std::string_view text) {
  Ranges ranges;
  while (!text.empty() && ranges.size() < kMaxRanges) {
    const std::size_t newline = text.find('\n');
    const std::size_t bytes =
        std::min({newline == text.npos ? text.size() : newline + 1, text.size(), kPieceBytes});
    const std::string line(text.substr(0, bytes));
    text.remove_prefix(bytes);
    std::uint64_t start = 0;
    std::uint64_t end = 0;
    // NOLINTNEXTLINE(cert-err34-c): intentional: sscanf's result for huge numbers
    if (std::sscanf(line.c_str(), "%" SCNx64 "-%" SCNx64, &start, &end) < 2) break;
    if (start < end && std::none_of(ranges.begin(), ranges.end(), [&](const auto& range) {
          return range.first < end && start < range.second;
        })) {
      ranges.emplace_back(start, end);
    }
  }
  return ranges;
}

void CheckReportIndex(const std::string& path, const Ranges& ranges) {
  MapData maps(path, platform::PcWidth{1, 16});
  maps.ReadMaps(false);
  for (const auto& [start, end] : ranges) {
    if (end - start < 2) continue;
    for (const std::uint64_t pc : {start + 1, end - 1}) {
      std::uintptr_t offset = 0;
      const MapEntry* entry = maps.Find(pc, &offset);
      fuzz::Require(entry != nullptr && entry->start == start && entry->end == end,
                    "the index finds a mapping by its addresses");
      fuzz::Require(offset == pc - start, "an offset counts from the mapping's start");
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const fuzz::MemoryFile file;
  // The report's index frees its entries only if recording was started.
  static MemTrackControl* const control = [] {
    MemTrackControl* created = MemTrackControl::CreateInstance();
    created->ConfigHookStatus(false, true);
    return created;
  }();
  fuzz::Require(control->GetHookEverStarted(), "recording was started");
  file.Write(data, size);
  const Ranges ranges = ExpectedRanges(std::string_view(reinterpret_cast<const char*>(data), size));
  CheckReportIndex(file.Path(), ranges);
  return 0;
}
