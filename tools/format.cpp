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
  std::size_t columns = 0;
  for (const char c : text) columns += IsContinuation(c) ? 0 : 1;
  return columns;
}

std::string FitWidth(std::string_view text, std::size_t width) {
  std::vector<std::string> points;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    const bool control = byte < 0x20 || byte == 0x7f;
    if (IsContinuation(c) && !points.empty()) {
      points.back() += c;
    } else {
      points.emplace_back(1, control ? '?' : c);
    }
  }
  constexpr std::string_view kGap = "...";
  std::string fitted;
  const bool cut = points.size() > width && width > kGap.size();
  const std::size_t kept = cut ? width - kGap.size() : points.size();
  const std::size_t front = cut ? (kept + 1) / 2 : kept;
  for (std::size_t i = 0; i < front; ++i) fitted += points[i];
  if (!cut) return fitted;
  fitted += kGap;
  for (std::size_t i = points.size() - (kept - front); i < points.size(); ++i) fitted += points[i];
  return fitted;
}

}  // namespace memleak
