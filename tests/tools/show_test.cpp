// Figures as people read them, and the plain-text view of a report.
#include "tools/show.h"

#include <gtest/gtest.h>

#include <limits>
#include <sstream>

#include "tools/format.h"

namespace memleak {
namespace {

TEST(Format, FiguresAndNames) {
  EXPECT_EQ(FormatBytes(1023), "1023 B");
  EXPECT_EQ(FormatBytes(1048575), "1.0 MiB");  // never "1024.0 KiB"
  EXPECT_EQ(FormatBytes(std::numeric_limits<std::uint64_t>::max()), "16.0 EiB");
  EXPECT_EQ(FormatCount(1234567), "1,234,567");
  EXPECT_EQ(FormatAge(100000), "1d 3h");
  EXPECT_EQ(FormatAge(-5), "-5s");
  EXPECT_EQ(FitWidth("abcdefghijk", 10), "abcd...ijk");
  EXPECT_EQ(FitWidth("a\x1b[2Jb\n", 10), "a?[2Jb?");  // cannot steer the terminal
  EXPECT_EQ(Columns(FitWidth("\xc3\xa4\xc3\xa4\xc3\xa4\xc3\xa4\xc3\xa4\xc3\xa4", 5)), 5U);
}

Report Sample() {
  Report report;
  report.complete = true;
  report.header = {.total_bytes = 4000, .groups = 1200, .listed = 1000, .backtrace_size = 10};
  NativeGroup small{.size = 10, .total = 10, .count = 1, .ages = {4}, .frames = {{"", 0, false}}};
  NativeGroup large{.size = 1024, .total = 2048, .count = 2, .ages = {3, 200}, .frames = {}};
  large.frames.push_back({"/lib/known.so", 0x10, true});
  large.frames.push_back({"/lib/unknown.so", 0xabc, true});
  report.native = {small, large};
  report.java.push_back({.size = 8, .total = 8, .count = 1, .frames = {{0x1f, "art::Run()"}}});
  return report;
}

std::string Print(const Report& report, std::size_t top) {
  static const Symbols kKnown = {{"inner(int)", "/src/a.cpp", 12},
                                 {std::string(200, 'n'), "/src/b.cpp", 99999}};
  static const Symbols kNone;
  std::ostringstream out;
  const Resolver resolve = [](const std::string& library, std::uint64_t) -> const Symbols& {
    return library == "/lib/known.so" ? kKnown : kNone;
  };
  PrintReport(report, "dump", top, resolve, out);
  return out.str();
}

TEST(Show, PrintsLargestFirstWithinEightyColumns) {
  const std::string text = Print(Sample(), 0);
  for (const char* part :
       {"#1  2.0 KiB  51.2 %  2 blocks of 1.0 KiB  age 3m 20s..3s", "inner(int)  a.cpp:12",
        "unknown.so+0xabc", "#2  10 B", "art::Run()  +0x1f"}) {
    EXPECT_NE(text.find(part), std::string::npos) << part << " in\n" << text;
  }
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) EXPECT_LE(Columns(line), 80U) << line;
}

TEST(Show, SaysWhatIsNotShown) {
  EXPECT_NE(Print(Sample(), 1).find("Not shown: 1.9 KiB in 1,199 smaller groups (--top"),
            std::string::npos);
  Report empty;
  empty.complete = true;
  EXPECT_EQ(Print(empty, 10), std::string("Report dump\n  ") + kNothingHeld + "\n");
}

}  // namespace
}  // namespace memleak
