// SPDX-License-Identifier: Apache-2.0
#include "tools/base/format.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <limits>
#include <vector>

#include "tools/base/names.h"

namespace memleak {
namespace {

constexpr double kUnitStep = 1024.0;
constexpr std::int64_t kMinute = 60;
constexpr std::int64_t kHour = 60 * kMinute;
constexpr std::int64_t kDay = 24 * kHour;

/// Characters from `first` to `last`.
struct Block {
  std::uint32_t first = 0;
  std::uint32_t last = 0;
};

// The blocks of wide and full-width characters in Unicode's table of East Asian widths. wcwidth
// depends on the locale.
constexpr std::array kWideBlocks = {
    Block{0x1100, 0x115f},   Block{0x2e80, 0x303e},   Block{0x3041, 0xa4cf},
    Block{0xa960, 0xa97c},   Block{0xac00, 0xd7a3},   Block{0xf900, 0xfaff},
    Block{0xfe30, 0xfe6f},   Block{0xff01, 0xff60},   Block{0xffe0, 0xffe6},
    Block{0x16fe0, 0x1b2ff}, Block{0x1f300, 0x1f64f}, Block{0x1f680, 0x1f6ff},
    Block{0x1f900, 0x1f9ff}, Block{0x20000, 0x3fffd}};

// The terminal columns of Printable(character.bytes).
std::size_t ColumnsOf(const Character& character) {
  if (!character.printable) return Printable(character.bytes).size();
  const bool wide = std::any_of(kWideBlocks.begin(), kWideBlocks.end(), [&](const Block& block) {
    return character.value >= block.first && character.value <= block.last;
  });
  return wide ? 2 : 1;
}

/// A character and its width.
struct Cell {
  std::string_view bytes;
  std::size_t columns = 1;
};

std::vector<Cell> CellsOf(std::string_view text) {
  std::vector<Cell> cells;
  while (!text.empty()) {
    const Character character = FirstCharacter(text);
    cells.push_back({character.bytes, ColumnsOf(character)});
    text.remove_prefix(character.bytes.size());
  }
  return cells;
}

std::size_t Sum(const std::vector<Cell>& cells) {
  std::size_t columns = 0;
  for (const Cell& cell : cells) columns += cell.columns;
  return columns;
}

std::string TwoUnits(std::int64_t seconds, std::int64_t large, char large_name, std::int64_t small,
                     char small_name) {
  std::string text = std::to_string(seconds / large) + large_name;
  const std::int64_t rest = seconds % large / small;
  if (rest != 0) text += " " + std::to_string(rest) + small_name;
  return text;
}

}  // namespace

std::string FormatBytes(std::uint64_t bytes) {
  constexpr std::array<const char*, 7> kUnits = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  if (bytes < 1024) return std::to_string(bytes) + " B";
  auto value = static_cast<double>(bytes);
  std::size_t unit = 0;
  // Values that round to 1024.0 use the next unit.
  while (value >= kUnitStep - 0.05 && unit + 1 < kUnits.size()) {
    value /= kUnitStep;
    ++unit;
  }
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "%.1f %s", value, kUnits.at(unit));
  return text.data();
}

std::string FormatSizes(std::uint64_t smallest, std::uint64_t largest) {
  const std::string text = FormatBytes(smallest);
  return largest > smallest ? text + " to " + FormatBytes(largest) : text;
}

std::string FormatGrowth(double bytes) {
  constexpr double kMaxBytes = 1e18;
  const auto magnitude = std::llround(std::min(std::fabs(bytes), kMaxBytes));
  return (bytes < 0 ? "-" : "+") + FormatBytes(static_cast<std::uint64_t>(magnitude));
}

std::string FormatCount(std::uint64_t count) {
  std::string digits = std::to_string(count);
  for (std::size_t i = digits.size(); i > 3; i -= 3) digits.insert(i - 3, ",");
  return digits;
}

std::string Counted(std::uint64_t count, const std::string& noun) {
  return FormatCount(count) + " " + noun + (count == 1 ? "" : "s");
}

std::string Percent(std::uint64_t part, std::uint64_t whole) {
  if (whole == 0) return "";
  std::array<char, 16> text{};
  const double share = 100.0 * static_cast<double>(part) / static_cast<double>(whole);
  // The sums of a damaged report may exceed its total.
  if (share >= 1000.0) return ">999 %";
  std::snprintf(text.data(), text.size(), "%.1f %%", share);
  return text.data();
}

namespace {

std::string FormatTime(std::int64_t seconds_since_epoch, const char* format) {
  const std::time_t time = seconds_since_epoch;
  std::tm parts{};
  if (localtime_r(&time, &parts) == nullptr) return "?";  // only damaged files have such times
  std::array<char, 32> text{};
  std::strftime(text.data(), text.size(), format, &parts);
  return text.data();
}

}  // namespace

std::string FormatClock(std::int64_t seconds_since_epoch) {
  return FormatTime(seconds_since_epoch, "%H:%M:%S");
}

std::string FormatDate(std::int64_t seconds_since_epoch) {
  return FormatTime(seconds_since_epoch, "%Y-%m-%d %H:%M:%S");
}

std::string FormatAge(std::int64_t seconds) {
  // The lowest number has no negation; only damaged reports have it.
  constexpr std::int64_t kHighest = std::numeric_limits<std::int64_t>::max();
  if (seconds < 0) return "-" + FormatAge(seconds < -kHighest ? kHighest : -seconds);
  if (seconds < kMinute) return std::to_string(seconds) + "s";
  if (seconds < kHour) return TwoUnits(seconds, kMinute, 'm', 1, 's');
  if (seconds < kDay) return TwoUnits(seconds, kHour, 'h', kMinute, 'm');
  return TwoUnits(seconds, kDay, 'd', kHour, 'h');
}

std::size_t Columns(std::string_view text) {
  return Sum(CellsOf(text));
}

std::string FitWidth(std::string_view text, std::size_t width) {
  const std::string kGap = "...";
  const std::vector<Cell> cells = CellsOf(text);
  if (Sum(cells) <= width || width <= kGap.size()) return Printable(text);
  const std::size_t room = width - kGap.size();
  std::size_t left = (room + 1) / 2;
  std::size_t front = 0;  // bytes
  for (auto cell = cells.begin(); cell->columns <= left; ++cell) {
    left -= cell->columns;
    front += cell->bytes.size();
  }
  left += room / 2;
  std::size_t back = 0;
  for (auto cell = cells.rbegin(); cell->columns <= left; ++cell) {
    left -= cell->columns;
    back += cell->bytes.size();
  }
  return Printable(text.substr(0, front)) + kGap + Printable(text.substr(text.size() - back));
}

std::string Right(const std::string& text, std::size_t width) {
  const std::size_t columns = Columns(text);
  return columns < width ? std::string(width - columns, ' ') + text : text;
}

std::size_t OutputColumns() {
  static const std::size_t columns = [] {
    winsize size{};
    const bool known = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0;
    return std::max<std::size_t>(known ? size.ws_col : 0, 80);
  }();
  return columns;
}

std::string OneLineOrTwo(const std::string& first, const std::string& second) {
  const bool fits = Columns(first) + 1 + Columns(second) <= OutputColumns();
  return first + (fits ? " " : "\n  ") + second;
}

}  // namespace memleak
