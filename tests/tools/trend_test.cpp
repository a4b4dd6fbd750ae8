// Lines through points, and groups followed from report to report: what is unknown stays unknown.
#include "tools/report/trend.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <sstream>

#include "tests/tools/profile_builder.h"
#include "tools/interference.h"
#include "tools/report/diff.h"
#include "tools/trend_table.h"
#include "tools/watch.h"

namespace memleak {
namespace {

/// A profile of one library whose frames are functions of these names.
class Made {
 public:
  Made() { profile_.complete = true; }

  Made& Add(std::uint64_t size, std::uint64_t count, const std::vector<std::string>& names) {
    Group& group = profile_.groups.emplace_back();
    group.size = size;
    group.count = count;
    group.total = size * count;
    for (const std::string& name : names) {
      group.stack.push_back(static_cast<std::uint32_t>(profile_.frames.size()));
      Frame& frame = profile_.frames.emplace_back();
      frame.function = name;
      frame.line = ++line_;  // matters to nobody
    }
    profile_.header.groups++;
    return *this;
  }
  /// Groups that the list lacks.
  Made& Cut(std::uint64_t groups) {
    profile_.header.groups += groups;
    return *this;
  }
  const Profile& Get() const { return profile_; }

 private:
  Profile profile_;
  static inline std::uint32_t line_ = 0;
};

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

TEST(Trends, FollowsGroupsByTheNamesOnTheirStacks) {
  Trends trends;
  trends.Add(0, Made().Add(48, 10, {"Leak", "main"}).Add(64, 3, {"Gone", "main"}).Get());
  // Calls from two lines of one function are one group.
  trends.Add(60, Made().Add(48, 15, {"Leak", "main"}).Add(48, 5, {"Leak", "main"}).Get());
  trends.Add(120, Made().Add(48, 30, {"Leak", "main"}).Add(72, 1, {"Leak", "main"}).Get());
  const std::vector<GroupTrend> groups = trends.Result();
  ASSERT_EQ(groups.size(), 3U);
  EXPECT_EQ(groups[0].stack, (std::vector<std::string>{"Leak", "main"}));
  EXPECT_EQ(groups[0].Growth(), 20 * 48);
  EXPECT_DOUBLE_EQ(groups[0].line->slope, 10 * 48);
  EXPECT_EQ(groups[0].values[1]->count, 20U);
  EXPECT_EQ(groups[1].Growth(), 72) << "not there before: the lists were whole";
  EXPECT_EQ(groups[2].Growth(), -3 * 64);
}

TEST(Trends, TakesWhatMayLieBelowTheCutForUnknown) {
  Trends trends;
  trends.Add(0, Made().Add(48, 10, {"A"}).Add(48, 10, {"B"}).Add(16, 2, {"Two"}).Get());
  trends.Add(60, Made().Add(48, 20, {"A"}).Cut(5).Get());
  trends.Add(
      120,
      Made().Add(48, 30, {"A"}).Add(48, 30, {"B"}).Add(16, 2, {"Two"}).Add(16, 9, {"Two"}).Get());
  trends.Add(180, Made().Add(48, 40, {"A"}).Add(16, 9, {"Two"}).Cut(5).Get());
  const std::vector<GroupTrend> groups = trends.Result();
  ASSERT_EQ(groups.size(), 3U);
  EXPECT_EQ(groups[0].Known(), 4U);
  const GroupTrend& b = groups[1].stack.front() == "B" ? groups[1] : groups[2];
  EXPECT_EQ(b.Known(), 2U);
  EXPECT_FALSE(b.values[1]) << "not 0";
  EXPECT_FALSE(b.Growth());
  EXPECT_DOUBLE_EQ(b.line->slope, 10 * 48) << "through what is known";
  const GroupTrend& two = groups[1].stack.front() == "Two" ? groups[1] : groups[2];
  EXPECT_FALSE(two.values[3]) << "one of its two parts may be below the cut";
}

TEST(Trends, KnowOfACutListWhatADifferenceKnows) {
  const auto report = [](const char* path, std::uint64_t place) {
    return ProfileBuilder().In(path, place, "Leak").Group(48, 10).Done(3, 100);
  };
  const Profile first = report("/old/libleak.so", 0x10);
  for (const bool same : {true, false}) {
    const Profile last = report("/new/libleak.so", same ? 0x10 : 0x20);
    Trends trends;
    trends.Add(0, first);
    trends.Add(60, last);
    ASSERT_EQ(trends.Result().size(), 1U);
    EXPECT_EQ(trends.Result().front().Growth().has_value(), same);
    EXPECT_EQ(Compare(first, last).changes.front().change, same ? Change::kSame : Change::kUnknown);
  }
}

TEST(Trends, TellsFunctionsOfOneNameApartByTheirLibraries) {
  const auto made = [](std::uint64_t count, std::int32_t first, std::int32_t second) {
    Profile profile = Made().Add(8, count, {"Copy"}).Add(8, 1, {"Copy"}).Add(8, 2, {""}).Get();
    for (const char* path : {"/a/liba.so", "/b/libb.so", "/b/libb.so (deleted)"}) {
      profile.libraries.emplace_back().path = path;
    }
    for (int i : {0, 1, 2})
      profile.frames[static_cast<std::size_t>(i)].library = i ? second : first;
    return profile;
  };
  Trends trends;
  trends.Add(0, made(1, 0, 1));
  trends.Add(60, made(5, 0, 2));
  const std::vector<GroupTrend> groups = trends.Result();
  ASSERT_EQ(groups.size(), 3U) << "a file that was replaced is the same library";
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

TEST(Watch, CommandsThatBreakATrend) {
  const auto found = [](const std::string& word) {
    return FindInterference({"set hook to:false", "1.5 1 2 I T: received_sig 44;addr:0x" + word});
  };
  for (const char* harmless : {"4000", "40000", "10", "2000", "20000", "300000", "0"}) {
    EXPECT_EQ(found(harmless), "") << harmless;
  }
  // Of several effects the worst: these begin anew, and stop after a pause.
  for (const char* emptied : {"90", "800", "8000", "80000", "800000"}) {
    EXPECT_EQ(found(emptied).find("its tables were emptied (command 0x"), 0U) << emptied;
  }
  EXPECT_EQ(found("60").find("recording was stopped"), 0U);
  for (const char* kind : {"100", "200", "400", "1000", "10000"}) {
    EXPECT_EQ(found(kind).find("it was told to record another kind"), 0U) << kind;
  }
}

}  // namespace
}  // namespace memleak
