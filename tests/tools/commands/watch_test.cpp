// SPDX-License-Identifier: Apache-2.0
// What `watch` computes from reports that omit groups, and when it takes the next one.
#include <gtest/gtest.h>

#include <sstream>

#include "tools/commands/watch.h"
#include "tools/report/trend.h"
#include "tools/view/print.h"

namespace memleak {
namespace {

TEST(Trends, GroupsThatACutListMayHideAreNotJudged) {
  Trends trends;
  for (const unsigned round : {0U, 1U}) {
    Profile profile;
    profile.complete = true;
    profile.header = {.total_bytes = 2100, .groups = 9, .listed = 2, .backtrace_size = 10};
    profile.libraries = {{"/a/lib.so", "", true, ""}};
    profile.frames = {{0, 1, 0, "Copy", "", 0, false}, {0, 2, 0, "Other", "", 0, false}};
    profile.groups = {{GroupKind::kNative, 8, 1 + 4 * round, 8 + 32 * round, {}, {0}},
                      {GroupKind::kNative, 16 + 8 * round, 1, 16 + 8 * round, {}, {1}}};
    trends.Add(60.0 * round, profile);
  }
  SavedReport saved;
  saved.unlisted = {.bytes = 2048, .groups = 7, .blocks = 0};
  std::ostringstream out;
  PrintTrends({SavedReport{}, saved}, trends.Result(), 0, out);
  for (const char* part : {"#1  +32 B  +32 B/min", "1 -> 5 blocks of 8 B\n", "1 of 3 stacks",
                           "not judged: 2 stacks of 40 B", "2.0 KiB in 7 stacks"}) {
    EXPECT_NE(out.str().find(part), std::string::npos) << part << " in\n" << out.str();
  }
}

TEST(Watch, SkipsLateRoundsExceptTheLast) {
  using std::chrono::milliseconds;
  const auto next = [](int last, int whole, int now) -> std::int64_t {
    const auto due =
        NextDue(milliseconds(last), milliseconds(10), milliseconds(whole), milliseconds(now));
    return due ? due->count() : -1;
  };
  EXPECT_EQ(next(0, 30, 4), 10);
  EXPECT_EQ(next(0, 95, 57), 50);
  EXPECT_EQ(next(0, 30, 57), 30);
  EXPECT_EQ(next(30, 30, 57), -1);
  EXPECT_EQ(next(30, 0, 57), 50);
}

}  // namespace
}  // namespace memleak
