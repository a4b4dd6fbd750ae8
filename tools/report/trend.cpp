// Values of groups over time, and least squares.
#include "tools/report/trend.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <utility>

#include "tools/report/stack_key.h"

namespace memleak {
namespace {

constexpr double kSecondsPerMinute = 60;

// The 97.5 % quantile of Student's t: from its table, and where that ends by Fisher's expansion at
// the normal distribution's quantile, which is within 0.1 % from there on.
double StudentT(std::size_t degrees) {
  constexpr std::array kTable = {12.7062, 4.3027, 3.1824, 2.7764, 2.5706,
                                 2.4469,  2.3646, 2.3060, 2.2622, 2.2281};
  if (degrees <= kTable.size()) return kTable[degrees - 1];
  constexpr double kNormal = 1.959964;
  constexpr double kFirst = 2.372271;   // (z^3 + z) / 4
  constexpr double kSecond = 2.822500;  // (5 z^5 + 16 z^3 + 3 z) / 96
  const auto v = static_cast<double>(degrees);
  return kNormal + kFirst / v + kSecond / (v * v);
}

Point Mean(const std::vector<Point>& points) {
  Point mean;
  for (const Point& point : points) {
    mean.x += point.x;
    mean.y += point.y;
  }
  mean.x /= static_cast<double>(points.size());
  mean.y /= static_cast<double>(points.size());
  return mean;
}

std::optional<Line> LineOf(const GroupTrend& group, const std::vector<double>& seconds) {
  std::vector<Point> points;
  for (std::size_t i = 0; i < seconds.size(); ++i) {
    if (!group.values[i]) continue;
    points.push_back({seconds[i] / kSecondsPerMinute, static_cast<double>(group.values[i]->total)});
  }
  return FitLine(points);
}

// By what groups are sorted: bytes from the first report to the last, as far as they can be told.
double Gain(const GroupTrend& group, double minutes) {
  const std::optional<std::int64_t> growth = group.Growth();
  if (growth) return static_cast<double>(*growth);
  return group.line ? group.line->slope * minutes : 0;
}

}  // namespace

std::optional<Line> FitLine(const std::vector<Point>& points) {
  if (points.size() < 2) return std::nullopt;
  const Point mean = Mean(points);
  double xx = 0;
  double xy = 0;
  double yy = 0;
  for (const Point& point : points) {
    const double x = point.x - mean.x;
    const double y = point.y - mean.y;
    xx += x * x;
    xy += x * y;
    yy += y * y;
  }
  if (xx <= 0) return std::nullopt;
  Line line;
  line.slope = xy / xx;
  double scatter = 0;
  for (const Point& point : points) {
    const double off = point.y - mean.y - line.slope * (point.x - mean.x);
    scatter += off * off;
  }
  if (yy > 0) line.r_squared = std::clamp(1 - scatter / yy, 0.0, 1.0);
  if (points.size() > 2) {
    const std::size_t degrees = points.size() - 2;
    line.margin = StudentT(degrees) * std::sqrt(scatter / static_cast<double>(degrees) / xx);
  }
  return line;
}

std::size_t GroupTrend::Known() const {
  return static_cast<std::size_t>(std::count_if(
      values.begin(), values.end(), [](const auto& value) { return value.has_value(); }));
}

std::optional<std::int64_t> GroupTrend::Growth() const {
  if (values.empty() || !values.front() || !values.back()) return std::nullopt;
  return static_cast<std::int64_t>(values.back()->total - values.front()->total);
}

void Trends::Add(double seconds, const Profile& profile) {
  const std::size_t report = seconds_.size();
  seconds_.push_back(seconds);
  whole_[0].push_back(profile.ListsAll(GroupKind::kNative));
  whole_[1].push_back(profile.ListsAll(GroupKind::kJava));
  const std::vector<std::string> keys = FrameKeys(profile);
  for (const Group& group : profile.groups) {
    Collected& collected = groups_[GroupKey(group, keys)];
    GroupTrend& trend = collected.trend;
    if (trend.values.empty()) {
      trend.kind = group.kind;
      trend.size = group.size;
      for (const std::uint32_t frame : group.stack) {
        trend.stack.push_back(FrameName(profile, profile.frames[frame]));
        const std::int32_t library = profile.frames[frame].library;
        trend.libraries.emplace_back(
            library < 0 ? ""
                        : LibraryName(profile.libraries[static_cast<std::size_t>(library)].path));
      }
    }
    trend.values.resize(report + 1);
    std::optional<GroupValue>& value = trend.values[report];
    if (!value) value.emplace();
    value->count += group.count;
    value->total += group.total;
    std::vector<std::uint32_t>& counts = collected.sites[SiteKey(profile, group)];
    counts.resize(report + 1);
    ++counts[report];
  }
}

// For each report whether it lists every call site of `group` that any other lists.
std::vector<bool> Trends::ListsAllSites(const Collected& group) const {
  std::vector<bool> all(seconds_.size(), true);
  for (const auto& [site, counts] : group.sites) {
    const std::uint32_t most = *std::max_element(counts.begin(), counts.end());
    for (std::size_t i = 0; i < all.size(); ++i) {
      if (i >= counts.size() || counts[i] < most) all[i] = false;
    }
  }
  return all;
}

GroupTrend Trends::Complete(const Collected& group) const {
  GroupTrend trend = group.trend;
  trend.values.resize(seconds_.size());
  const std::vector<bool> lists_all = ListsAllSites(group);
  const std::vector<bool>& whole = whole_[trend.kind == GroupKind::kNative ? 0 : 1];
  for (std::size_t i = 0; i < seconds_.size(); ++i) {
    std::optional<GroupValue>& value = trend.values[i];
    if (whole[i]) {
      value = value.value_or(GroupValue{});
    } else if (!lists_all[i]) {
      value.reset();  // one of its sites may be below the cut
    }
  }
  trend.line = LineOf(trend, seconds_);
  return trend;
}

std::vector<GroupTrend> Trends::Result() const {
  std::vector<GroupTrend> result;
  result.reserve(groups_.size());
  for (const auto& [key, group] : groups_) result.push_back(Complete(group));
  const double minutes =
      seconds_.empty() ? 0 : (seconds_.back() - seconds_.front()) / kSecondsPerMinute;
  // The rest of the order is for equal runs to print equal tables.
  std::sort(result.begin(), result.end(), [&](const GroupTrend& a, const GroupTrend& b) {
    const double gain_a = Gain(a, minutes);
    const double gain_b = Gain(b, minutes);
    if (gain_a != gain_b) return gain_a > gain_b;
    if (a.size != b.size) return a.size > b.size;
    return a.stack < b.stack;
  });
  return result;
}

}  // namespace memleak
