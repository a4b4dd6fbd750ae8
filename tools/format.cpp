// Human-readable sizes, counts, ages and names.
#include "tools/format.h"

#include <array>
#include <cstdio>
#include <ctime>
#include <limits>
#include <vector>

namespace memleak {
namespace {

constexpr double kUnitStep = 1024.0;
constexpr std::int64_t kMinute = 60;
constexpr std::int64_t kHour = 60 * kMinute;
constexpr std::int64_t kDay = 24 * kHour;

bool IsContinuation(char c) {
  return (static_cast<unsigned char>(c) & 0xc0) == 0x80;
}

/// Characters from `first` to `last`.
struct Block {
  std::uint32_t first = 0;
  std::uint32_t last = 0;
};

// The blocks of wide and full-width characters in Unicode's table of East Asian widths; a locale,
// which the C library's function goes by, may know none of them.
constexpr std::array kWideBlocks = {
    Block{0x1100, 0x115f},   Block{0x2e80, 0x303e},   Block{0x3041, 0xa4cf},
    Block{0xa960, 0xa97c},   Block{0xac00, 0xd7a3},   Block{0xf900, 0xfaff},
    Block{0xfe30, 0xfe6f},   Block{0xff01, 0xff60},   Block{0xffe0, 0xffe6},
    Block{0x16fe0, 0x1b2ff}, Block{0x1f300, 0x1f64f}, Block{0x1f680, 0x1f6ff},
    Block{0x1f900, 0x1f9ff}, Block{0x20000, 0x3fffd}};

/// A character of UTF-8, or a byte that is none.
struct Point {
  std::string_view bytes;
  std::size_t columns = 1;
};

std::size_t ColumnsOf(std::string_view bytes) {
  const auto lead = static_cast<unsigned char>(bytes.front());
  // A lead byte of a sequence of n has n ones at its front.
  const std::uint32_t mask = bytes.size() == 4 ? 0x07 : (bytes.size() == 3 ? 0x0f : 0x1f);
  std::uint32_t value = lead & mask;
  for (const char c : bytes.substr(1))
    value = (value << 6U) | (static_cast<unsigned char>(c) & 0x3fU);
  for (const Block& block : kWideBlocks) {
    if (bytes.size() > 2 && value >= block.first && value <= block.last) return 2;
  }
  return 1;
}

std::vector<Point> PointsOf(std::string_view text) {
  std::vector<Point> points;
  for (std::size_t begin = 0; begin < text.size();) {
    std::size_t end = begin + 1;
    while (end < text.size() && IsContinuation(text[end])) ++end;
    const std::string_view bytes = text.substr(begin, end - begin);
    points.push_back({bytes, ColumnsOf(bytes)});
    begin = end;
  }
  return points;
}

std::size_t Sum(const std::vector<Point>& points) {
  std::size_t columns = 0;
  for (const Point& point : points) columns += point.columns;
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
  // What would round to 1024.0 is shown in the next unit.
  while (value >= kUnitStep - 0.05 && unit + 1 < kUnits.size()) {
    value /= kUnitStep;
    ++unit;
  }
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "%.1f %s", value, kUnits.at(unit));
  return text.data();
}

std::string FormatCount(std::uint64_t count) {
  std::string digits = std::to_string(count);
  for (std::size_t i = digits.size(); i > 3; i -= 3) digits.insert(i - 3, ",");
  return digits;
}

std::string FormatClock(std::int64_t seconds_since_epoch) {
  const std::time_t time = seconds_since_epoch;
  std::tm parts{};
  localtime_r(&time, &parts);
  std::array<char, 32> text{};
  std::strftime(text.data(), text.size(), "%H:%M:%S", &parts);
  return text.data();
}

std::string FormatAge(std::int64_t seconds) {
  // The lowest number has no opposite; it stands in damaged reports only.
  constexpr std::int64_t kHighest = std::numeric_limits<std::int64_t>::max();
  if (seconds < 0) return "-" + FormatAge(seconds < -kHighest ? kHighest : -seconds);
  if (seconds < kMinute) return std::to_string(seconds) + "s";
  if (seconds < kHour) return TwoUnits(seconds, kMinute, 'm', 1, 's');
  if (seconds < kDay) return TwoUnits(seconds, kHour, 'h', kMinute, 'm');
  return TwoUnits(seconds, kDay, 'd', kHour, 'h');
}

std::size_t Columns(std::string_view text) {
  return Sum(PointsOf(text));
}

std::string FitWidth(std::string_view text, std::size_t width) {
  constexpr std::string_view kGap = "...";
  const std::vector<Point> points = PointsOf(text);
  const auto append = [](const Point& point, std::string* fitted) {
    const auto first = static_cast<unsigned char>(point.bytes.front());
    const bool control = first < 0x20 || first == 0x7f;
    *fitted += control ? "?" : point.bytes;
  };
  std::string fitted;
  if (Sum(points) <= width || width <= kGap.size()) {
    for (const Point& point : points) append(point, &fitted);
    return fitted;
  }
  std::size_t room = width - kGap.size();
  std::size_t front = 0;
  for (std::size_t half = (room + 1) / 2; points[front].columns <= half; ++front) {
    half -= points[front].columns;
    room -= points[front].columns;
    append(points[front], &fitted);
  }
  fitted += kGap;
  std::size_t back = points.size();
  while (points[back - 1].columns <= room) room -= points[--back].columns;
  for (; back < points.size(); ++back) append(points[back], &fitted);
  return fitted;
}

}  // namespace memleak
