// The report grammar, with what real mappings can be named and with what damage does.
#include "tools/report/report_parser.h"

#include <gtest/gtest.h>

#include <sstream>
#include <utility>
#include <vector>

#include "tests/temporary_directory.h"
#include "tools/base/user_error.h"

namespace memleak {
namespace {

const std::string kHead =
    "Native Heap MemLeak Tracker Version 2.0:\nTotal memory(bytes): 200\n"
    "Allocation records: 1500/1000\nBacktrace size: 10\n\n";
const std::string kJavaRule =
    "==============================Java-Native Stack==============================\n";

/// What a report delivers. Names of libraries are parts of lines: they are kept by themselves.
struct Report {
  ReportHeader header;
  std::vector<NativeGroup> native;
  std::vector<std::vector<std::string>> libraries;  // of the native groups' frames
  std::vector<JavaGroup> java;
  std::vector<DamagedLine> damaged;
  bool complete = false;
};

ReportSink SinkInto(Report* report) {
  ReportSink sink;
  sink.native = [=](const NativeGroup& group) {
    report->native.push_back(group);
    std::vector<std::string>& names = report->libraries.emplace_back();
    for (const ReportFrame& frame : group.frames) names.emplace_back(frame.library);
  };
  sink.java = [=](const JavaGroup& group) { report->java.push_back(group); };
  sink.damaged = [=](DamagedLine&& line) { report->damaged.push_back(std::move(line)); };
  return sink;
}

Report LoadReport(const std::string& path) {
  Report report;
  report.complete = ReadReportFile(path, SinkInto(&report), &report.header) == ReportEnd::kComplete;
  return report;
}

Report Load(const std::string& text) {
  const TemporaryDirectory directory;
  return LoadReport(directory.Write("report", text));
}

TEST(ReportParser, ReadsAWholeReport) {
  const Report report = Load(
      kHead +
      "sz 32 96 num 3 time 5 200 0  bt [/usr/lib/libc.so.6+0x2724a] [/bin/a b+0x1f] \n"
      "sz 104 104 num 1 time -3  bt [unknow][unknow][/bin/x+0x1] [unknow]\n" +
      kJavaRule + "sz 16 64 num 4\n#00 rel_pc 1a2b art::Thread::Run(int) const\n#01 rel_pc ff \n" +
      "sz 8 8 num 1\n#00 rel_pc 0 f\nEND");
  EXPECT_TRUE(report.complete);
  EXPECT_TRUE(report.damaged.empty());
  EXPECT_EQ(report.header.total_bytes, 200U);
  EXPECT_EQ(report.header.groups, 1500U);

  ASSERT_EQ(report.native.size(), 2U);
  EXPECT_EQ(report.native[0].total, 96U);
  EXPECT_EQ(report.native[0].ages, (std::vector<std::int64_t>{5, 200, 0}));
  ASSERT_EQ(report.native[0].frames.size(), 2U);
  EXPECT_EQ(report.native[0].frames[0].offset, 0x2724aU);
  EXPECT_EQ(report.libraries[0][1], "/bin/a b");
  ASSERT_EQ(report.native[1].frames.size(), 4U);
  EXPECT_FALSE(report.native[1].frames[1].known);
  EXPECT_TRUE(report.native[1].frames[2].known);

  ASSERT_EQ(report.java.size(), 2U);
  ASSERT_EQ(report.java[0].frames.size(), 2U);
  EXPECT_EQ(report.java[0].frames[0].rel_pc, 0x1a2bU);
  EXPECT_EQ(report.java[0].frames[0].function, "art::Thread::Run(int) const");
}

TEST(ReportParser, ReadsEveryKindOfName) {
  for (const std::string name :
       {"", "[vdso]", "/tmp/lib (deleted)", "/opt/c++/lib[1] x+0x12/l.so", "/a] [b+0xg",
        "/data/app/base.apk!/lib/x.so", "/tmp/\xc3\xa4\xe2\x82\xac.so", "/unknow]", "/x+0x10]y"}) {
    NativeGroup group;
    std::string reason;
    const std::string line = "sz 1 1 num 1 time 0  bt [" + name + "+0xab] [/z+0x1] [unknow]";
    ASSERT_TRUE(ParseNativeLine(line, &group, &reason)) << name << ": " << reason;
    ASSERT_EQ(group.frames.size(), 3U) << name;
    EXPECT_EQ(group.frames[0].library, name);
    EXPECT_EQ(group.frames[0].offset, 0xabU);
  }
}

TEST(ReportParser, LeavesOutDamagedLinesAndSaysWhich) {
  const Report report = Load(kHead + "sz 32 96 num\n" +                         // line 6
                             "sz 1 1 num 1 time 0  bt [/a+0x1] \n" +            // 7, whole
                             "sz 99999999999999999999 1 num 1 time 0  bt \n" +  // too large
                             "sz 1 1 num 1 time 0  bt [/a+0x1]\n" +             // no blank
                             "sz 1 1 num 1 time 0  bt [/a+0x] \n" + "garbage\n" + kJavaRule +
                             "#00 rel_pc 1 frame of no group\nEND");
  EXPECT_TRUE(report.complete);
  ASSERT_EQ(report.native.size(), 1U);
  std::vector<std::uint64_t> numbers;
  for (const DamagedLine& line : report.damaged) numbers.push_back(line.number);
  EXPECT_EQ(numbers, (std::vector<std::uint64_t>{6, 8, 9, 10, 11, 13}));
}

TEST(ReportParser, MissingLinesOfTheHeadAreDamage) {
  const std::string group = "sz 1 1 num 1 time 0  bt [/a+0x1] \n";
  for (const char* lacking : {"Total", "Allocation", "Backtrace"}) {
    const std::size_t begin = kHead.find(lacking);
    const std::size_t end = kHead.find('\n', begin) + 1;
    const std::string rest = group + kJavaRule + "END";
    for (const std::string& text : {rest, kJavaRule + "END"}) {
      const Report missing = Load(std::string(kHead).erase(begin, end - begin) + text);
      ASSERT_EQ(missing.damaged.size(), 1U) << lacking;
      EXPECT_EQ(missing.damaged[0].number, 0U);
      EXPECT_NE(missing.damaged[0].reason.find(lacking), std::string::npos);
    }
    // One that cannot be read is told of once.
    EXPECT_EQ(Load(std::string(kHead).replace(end - 2, 1, "x") + rest).damaged.size(), 1U);
  }
}

TEST(ReportParser, FramesOfADamagedJavaGroupGoToNoOther) {
  const Report report = Load(kHead + kJavaRule + "sz 8 8 num 1\n#00 rel_pc 1 mine\n" +
                             "sz 8 x num 1\n#00 rel_pc 2 lost\n#01 rel_pc 3 lost\n" +  // 9
                             "sz 9 9 num 1\n#00 rel_pc 4 other\n#01 broken\nEND");     // 14
  ASSERT_EQ(report.java.size(), 1U) << "with fewer frames it would be another group";
  EXPECT_EQ(report.java[0].frames.size(), 1U);
  ASSERT_EQ(report.damaged.size(), 2U);
  EXPECT_EQ(report.damaged[0].number, 9U);
  EXPECT_EQ(report.damaged[1].number, 14U);
}

TEST(ReportParser, ReadsLinesOfAnyLength) {
  // Lines that end before, at and after the border of what is read at once.
  std::string text = kHead;
  for (std::size_t length = 200; length < 3'000'000; length = length * 5 / 2 + 1) {
    text += "sz 1 1 num 1 time 0  bt [/" + std::string(length, 'n') + "+0x1] \n";
  }
  const Report report = Load(text + kJavaRule + "END");
  EXPECT_TRUE(report.complete);
  EXPECT_TRUE(report.damaged.empty());
  ASSERT_EQ(report.native.size(), 11U);
  EXPECT_EQ(report.libraries[1][0].size(), 502U);
  const Report absurd = Load(kHead + std::string(kLongestLine + 1'000'000, 'x') +
                             "\nsz 1 1 num 1 time 0  bt [/a+0x1] \n" + kJavaRule + "END");
  EXPECT_EQ(absurd.native.size(), 1U);
  ASSERT_EQ(absurd.damaged.size(), 1U);
  EXPECT_EQ(absurd.damaged[0].number, 6U);
}

TEST(ReportParser, EveryCutOfAReportIsTruncatedAndInventsNothing) {
  const std::string whole = kHead + "sz 1 2 num 2 time 0  bt [/a+0x1] [/b+0x2] \n" + kJavaRule +
                            "sz 8 8 num 1\n#00 rel_pc 0 f\n#01 rel_pc 0 g\nEND";
  for (std::size_t length = 0; length < whole.size(); ++length) {
    std::istringstream text(whole.substr(0, length));
    ReportHeader header;
    ReportSink sink;
    sink.native = [&](const NativeGroup& group) { EXPECT_EQ(group.frames.size(), 2U) << length; };
    sink.java = [&](const JavaGroup& group) { EXPECT_EQ(group.frames.size(), 2U) << length; };
    EXPECT_NE(ReadReport(text, sink, &header), ReportEnd::kComplete) << length;
  }
  for (const char* closing : {"\n", "\r\n"}) {
    const Report copy = Load(whole + closing);
    EXPECT_TRUE(copy.complete);
    EXPECT_TRUE(copy.damaged.empty());
    EXPECT_EQ(copy.java.size(), 1U);
  }
  const Report longer = Load(whole + "\nsz 9 9 num 1\n");
  EXPECT_FALSE(longer.complete);
  ASSERT_EQ(longer.damaged.size(), 1U);
  EXPECT_EQ(longer.damaged[0].number, 11U);
}

TEST(LoadReport, RefusesWithTheCauseAndItsRemedy) {
  const TemporaryDirectory directory;
  const auto refusal = [](const std::string& path) -> std::string {
    try {
      LoadReport(path);
    } catch (const UserError& error) {
      return error.what();
    }
    return "read";
  };
  const std::string mine = directory.Write("mine", "");
  const std::pair<std::string, const char*> cases[] = {
      {mine, "not a report"},
      {directory.Write("old", "Native Heap MemLeak Tracker Version 1.0:\nEND"), "not a report"},
      {"/dev/zero", "not a"},
      {directory.Path("absent"), "memleak report PID"},
      {directory.Path(""), "not a file; name the file"}};
  for (const auto& [path, part] : cases) {
    EXPECT_NE(refusal(path).find(part), std::string::npos) << refusal(path);
  }
}

}  // namespace
}  // namespace memleak
