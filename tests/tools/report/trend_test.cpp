// Lines through points, and groups followed from report to report.
#include "tools/report/trend.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <sstream>

#include "tests/tools/profile_builder.h"
#include "tools/commands/watch_rounds.h"
#include "tools/view/trend_table.h"

namespace memleak {
namespace {

TEST(Line, SlopeItsIntervalAndFit) {
  // Residuals 0.3, -0.2, 0.3, -1.2 and 0.8: 2.3 squared and added, over 3 degrees and xx = 10.
  const std::optional<Line> line = FitLine({{1, 1}, {2, 2}, {3, 4}, {4, 4}, {5, 7.5}});
  ASSERT_TRUE(line);
  EXPECT_DOUBLE_EQ(line->slope, 1.5);
  EXPECT_NEAR(*line->margin, 0.88117, 1e-4);
  EXPECT_NEAR(line->r_squared, 0.907258, 1e-6);

  const std::optional<Line> exact = FitLine({{0, 5}, {1, 8}, {3, 14}});
  EXPECT_DOUBLE_EQ(exact->slope, 3);
  EXPECT_NEAR(*exact->margin, 0, 1e-9);
  EXPECT_DOUBLE_EQ(exact->r_squared, 1);
  EXPECT_FALSE(FitLine({{0, 1}, {1, 2}})->margin);
  EXPECT_FALSE(FitLine({{0, 1}}));
  EXPECT_FALSE(FitLine({{2, 1}, {2, 9}}));
}

TEST(Line, IntervalOfManyPoints) {
  // y alternates around 0 at x = 0 to 20, so that slope 0 has a margin of t(19) * s / sqrt(xx).
  std::vector<Point> points;
  for (int i = 0; i <= 20; ++i) points.push_back({double(i), i % 2 == 0 ? 1.0 : -1.0});
  const std::optional<Line> line = FitLine(points);
  EXPECT_NEAR(line->slope, 0, 1e-12);
  const double scatter = 21 - 1.0 / 21;
  EXPECT_NEAR(*line->margin, 2.0930 * std::sqrt(scatter / 19 / 770), 2e-4);
}

TEST(Trends, TellsFunctionsOfOneNameApartByTheirLibraries) {
  const auto made = [](std::uint64_t count, const char* second) {
    return ProfileBuilder()
        .In("/a/liba.so", 1, "Copy")
        .Group(8, count)
        .In(second, 2, "Copy")
        .Group(8, 1)
        .Done();
  };
  Trends trends;
  trends.Add(0, made(1, "/b/libb.so"));
  trends.Add(60, made(5, "/b/libb.so (deleted)"));
  const std::vector<GroupTrend> groups = trends.Result();
  ASSERT_EQ(groups.size(), 2U) << "a file that was replaced is the same library";
  EXPECT_EQ(groups[0].Growth(), 32);
  EXPECT_EQ(groups[0].libraries, std::vector<std::string>{"liba.so"});

  // And the table says whose they are, and what it knows nothing of.
  SavedReport saved;
  saved.unlisted = {.bytes = 2048, .groups = 7, .blocks = 0};
  std::ostringstream out;
  PrintTrends({SavedReport{}, saved}, groups, 0, out);
  EXPECT_NE(out.str().find("     Copy  [liba.so]\n"), std::string::npos) << out.str();
  EXPECT_NE(out.str().find("0 B in 0 groups of the first report, 2.0 KiB in 7 groups"),
            std::string::npos)
      << out.str();
}

TEST(Watch, RoundsThatAreLateAreLeftOutButTheLast) {
  using std::chrono::milliseconds;
  const auto next = [](int last, int whole, int now) -> std::int64_t {
    const auto due =
        NextDue(milliseconds(last), milliseconds(10), milliseconds(whole), milliseconds(now));
    return due ? due->count() : -1;
  };
  EXPECT_EQ(next(0, 30, 4), 10);
  EXPECT_EQ(next(0, 30, 19), 10);
  EXPECT_EQ(next(0, 95, 57), 50);
  EXPECT_EQ(next(0, 30, 57), 30);
  EXPECT_EQ(next(30, 30, 57), -1);
  EXPECT_EQ(next(20, 29, 21), -1);
  EXPECT_EQ(next(30, 0, 57), 50);
}

}  // namespace
}  // namespace memleak
