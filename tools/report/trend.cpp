// SPDX-License-Identifier: Apache-2.0
#include "tools/report/trend.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <utility>

#include "tools/report/diff.h"

namespace memleak {
namespace {

constexpr double kSecondsPerMinute = 60;

// The 97.5 % quantile of Student's t. Above 10 degrees it is computed by Fisher's expansion, whose
// error is below 0.1 % there.
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

std::optional<Line> LineOf(const GroupTrend& group, const std::vector<double>& seconds) {
  std::vector<Point> points;
  for (std::size_t i = 0; i < seconds.size(); ++i) {
    if (!group.values[i].known) continue;
    points.push_back({seconds[i] / kSecondsPerMinute, static_cast<double>(group.values[i].total)});
  }
  return FitLine(points);
}

// The sort key of groups: bytes from the first report to the last.
double Gain(const GroupTrend& group, double minutes) {
  const std::optional<std::int64_t> growth = group.Growth();
  if (growth) return static_cast<double>(*growth);
  return group.line ? group.line->slope * minutes : 0;
}

}  // namespace

std::optional<Line> FitLine(const std::vector<Point>& points) {
  if (points.size() < 2) return std::nullopt;
  Point mean;
  for (const Point& point : points) {
    mean.x += point.x;
    mean.y += point.y;
  }
  mean.x /= static_cast<double>(points.size());
  mean.y /= static_cast<double>(points.size());
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
      values.begin(), values.end(), [](const GroupValue& value) { return value.known; }));
}

std::optional<std::int64_t> GroupTrend::Growth() const {
  if (!values.front().known || !values.back().known) return std::nullopt;
  return memleak::Growth(values.front().total, values.back().total);
}

void Trends::Add(double seconds, const Profile& profile) {
  seconds_.push_back(seconds);
  if (!matcher_) matcher_.emplace(/*by_size=*/!profile.head);
  const std::vector<std::size_t> indices = matcher_->Add(profile);
  for (std::size_t i = 0; i < indices.size(); ++i) {
    const Group& group = profile.groups[i];
    if (indices[i] != groups_.size()) {
      GroupTrend& known = groups_[indices[i]];
      known.size = std::min(known.size, group.size);
      known.max_size = std::max(known.max_size, group.max_size);
      continue;
    }
    GroupTrend& trend = groups_.emplace_back(
        GroupTrend{.kind = group.kind, .size = group.size, .max_size = group.max_size});
    for (const std::uint32_t index : group.stack) {
      const Frame& frame = profile.frames[index];
      trend.stack.push_back(FrameName(profile, frame));
      const Library* library = profile.LibraryOf(frame);
      trend.libraries.emplace_back(library == nullptr ? "" : LibraryName(library->path));
    }
  }
}

std::vector<GroupTrend> Trends::Result() const {
  std::vector<GroupTrend> result = groups_;
  if (!matcher_) return {};
  std::vector<MatchedGroup> matched = matcher_->Result();
  for (std::size_t i = 0; i < result.size(); ++i) {
    result[i].values = std::move(matched[i].values);
    result[i].line = LineOf(result[i], seconds_);
  }
  const double minutes =
      seconds_.empty() ? 0 : (seconds_.back() - seconds_.front()) / kSecondsPerMinute;
  // Size and stack make the order the same in every run.
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
