// SPDX-License-Identifier: Apache-2.0
// Exports with hostile names, and the commands that read reports with their exit codes.
#include <google/protobuf/io/gzip_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl.h>
#include <gtest/gtest.h>

#include <chrono>
#include <sstream>

#include "tests/temporary_directory.h"
#include "tests/tools/profile_builder.h"
#include "tests/tools/shell.h"
#include "tools/base/names.h"
#include "tools/commands/watch_rounds.h"
#include "tools/export/folded.h"
#include "tools/export/pprof.h"
#include "tools/export/profile.pb.h"
#include "tools/export/speedscope.h"

namespace memleak {
namespace {

const std::string kMemleak = MEMLEAK_PROGRAM " ";

// A stack in two sizes with an inlined call, an unknown frame, and a Java-native stack.
Profile Sample() {
  const Frame inlined{0, 0x20, 0x1020, "Box<a; b>::put(int)", "/s/box.h", 7, true};
  const Frame outer{0, 0x20, 0x1020, "fill\xff\n", "/s/fill.c", 40, false};
  return ProfileBuilder()
      .In("/lib/a%b.so", 0x5000)
      .Add(inlined)
      .Add(outer)
      .Group(100, 3)
      .In("/lib/a%b.so", 0x5000)
      .Add(inlined)
      .Add(outer)
      .Group(50, 4)
      .Add({})
      .Group(8, 1)
      .Add({.offset = 0x1f, .function = "art::Run()", .file = ""})
      .Group(16, 2, GroupKind::kJava)
      .Done(5, 77);
}

TEST(Export, NamesAreMadeSafe) {
  EXPECT_EQ(PercentEscape("a;b c%\n\x7f\xff\xc3\xa4"), "a%3Bb%20c%25%0A%7F%FF\xc3\xa4");
  EXPECT_EQ(Printable("\xc2\x9b\xc2\xa0\x9b\t\\"), "\\xc2\\x9b\xc2\xa0\\x9b\\x09\\");
  EXPECT_EQ(ValidUtf8("ok \xc3\xa4 \xf0\x9f\x98\x80"), "ok \xc3\xa4 \xf0\x9f\x98\x80");
  // Single bytes, an overlong form, a surrogate, a value above the maximum, an incomplete end.
  EXPECT_EQ(ValidUtf8("\xff|\xc0\xaf|\xed\xa0\x80|\xf5\x80\x80\x80|\xe2\x82"),
            "\xef\xbf\xbd|\xef\xbf\xbd\xef\xbf\xbd|\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd|"
            "\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd|\xef\xbf\xbd\xef\xbf\xbd");
}

TEST(Export, FoldedStacks) {
  const std::string stack = "fill%FF%0A;Box<a%3B%20b>::put(int);a%25b.so+0x5000";
  std::ostringstream bytes;
  WriteFolded(Sample(), Measure::kBytes, bytes);
  EXPECT_EQ(bytes.str(), stack + " 500\n[unknown] 8\n[java-native];art::Run() 32\n");
}

TEST(Export, SpeedscopeFollowsItsSchema) {
  TemporaryDirectory directory;
  std::ostringstream text;
  WriteSpeedscope(Sample(), text);
  const std::string path = directory.Write("leak.json", text.str());
  const Outcome validated = Shell(
      "/usr/bin/python3 -c 'import json, sys, jsonschema\n"
      "jsonschema.validate(*(json.load(open(p)) for p in sys.argv[1:]))' " +
      path + " " FIXTURE_SPEEDSCOPE_SCHEMA);
  EXPECT_EQ(validated.code, 0) << validated.output;
}

TEST(Export, PprofNamesTheProgramFirst) {
  ProfileBuilder builder;
  builder.In("/lib/libc.so.6", 0x10, "_start").In("/lib/libc.so.6", 0x20, "main");
  builder.In("/app/base.odex", 0x10, "jit").In("/bin/prog", 0x9000, "main").Group(10, 1);
  std::stringstream packed;
  EXPECT_TRUE(WritePprof(builder.Done(), packed));
  google::protobuf::io::IstreamInputStream input(&packed);
  google::protobuf::io::GzipInputStream plain(&input);
  perftools::profiles::Profile message;
  ASSERT_TRUE(message.ParseFromZeroCopyStream(&plain));
  EXPECT_EQ(message.string_table(static_cast<int>(message.mapping(0).filename())), "/bin/prog");
}

constexpr const char* kReport =
    "Native Heap MemLeak Tracker Version 2.0:\nTotal memory(bytes): 1000\n"
    "Allocation records: 3/2\nBacktrace size: 10\n\n"
    "sz 400 800 num 2 time 1 2  bt [/no/liba b.so+0x10] [unknow]\n"
    "sz 10 100 num 10 time 1  bt [/no/libc.so+0x20] \n"
    "==============================Java-Native Stack==============================\nEND";

TEST(Export, CommandsReadReportsAndGuardGrowth) {
  TemporaryDirectory directory;
  const std::string old_report = directory.Write("old", kReport);
  std::string grown = kReport;
  grown.replace(grown.find("1000"), 4, "3049");
  const std::string new_report = directory.Write("new", grown);

  const std::string diff = kMemleak + "diff " + old_report + " " + new_report;
  EXPECT_EQ(Shell(diff + " --fail-over 2049").code, 0);
  EXPECT_EQ(Shell(diff + " --fail-over 2k --json >/dev/null").output,
            "memleak: grew by 2,049 bytes, more than 2,048\n");
  EXPECT_EQ(Shell(diff + " --fail-over 2k").code, 1);
  EXPECT_EQ(Shell(kMemleak + "diff " + new_report + " " + old_report + " --fail-over 0").code, 0);
  // A document can replace its report. Java-native bytes count too.
  const std::string document = directory.Path("old.json");
  Shell(kMemleak + "export " + old_report + " --format json -o " + document);
  std::string java = grown;
  java.insert(java.find("END"), "sz 7 7 num 1\n#00 rel_pc 1 f\n");
  const std::string java_report = directory.Write("java", java);
  const std::string gate = " --fail-over 2k 2>&1 >/dev/null";
  EXPECT_EQ(Shell(kMemleak + "diff " + document + " " + java_report + gate).output,
            "memleak: grew by 2,056 bytes, more than 2,048\n");
  // With a damaged or truncated report, --fail-over always fails.
  grown.replace(grown.find("3049"), 4, "12x4");
  directory.Write("new", grown);
  EXPECT_EQ(Shell(diff + " --fail-over 2k").code, 2);
  directory.Write("new", java.substr(0, java.find("sz 7 7")));
  EXPECT_EQ(Shell(diff + " --partial --fail-over 9999").code, 2);

  EXPECT_EQ(Shell(kMemleak + "export " + old_report + " --format pprof -o /dev/full").code, 2);
}

TEST(Export, DocumentsReportDamageToo) {
  TemporaryDirectory directory;
  std::string text = kReport;
  for (int i = 0; i < 20; ++i) text.insert(text.find("sz 400"), "garbage\n");  // lines 6 to 25
  text.insert(text.find("sz 10 100"), "more\n");                               // 27
  const std::string report = directory.Write("report", text.erase(text.find("=====")));
  const std::string cut = directory.Path("cut.json");
  const std::string diff = directory.Path("diff.json");
  const auto output = [&](const std::string& command) { return Shell(kMemleak + command).output; };
  const auto has = [](const std::string& all, const std::string& part) {
    EXPECT_NE(all.find(part), std::string::npos) << part << " in\n" << all;
  };
  has(output("export " + report + " --partial --format json -o " + cut),
      "line 10 left out: not a line of a report\nmemleak: 16 more lines left out: 11-25, 27\n");
  const std::string read = output("show " + cut + " --partial --sysroot /");
  has(read, "21 lines left out: 6-25, 27\n");
  has(read, "cut.json: symbol directories are ignored");
  has(read, "\n  /no/liba b.so\n");
  Shell(kMemleak + "diff " + directory.Write("old", kReport) + " " + cut + " --partial --json >" +
        diff + " 2>&-");
  const std::string page_to = " -o " + directory.Path("page");
  for (const std::string& document : {cut, diff}) {
    const Outcome page =
        Shell(std::string(kMemleak).append("html ").append(document).append(page_to));
    EXPECT_EQ(page.code, 2);
    has(page.output, "report is truncated: ");
  }
  // It is no error if only one of two reports uses the directories.
  EXPECT_EQ(output("diff " + report + " " + cut + " --partial --sysroot /").find("are ignored"),
            std::string::npos);
}

TEST(Export, EachReportGetsTheSymbolsOfItsBuild) {
  TemporaryDirectory directory;
  const std::string library = directory.Path("lib.so");
  Shell("mkdir " + directory.Path("keep") + "; cp -p " FIXTURE_SYMBOLS " " + library +
        "; cp -p " FIXTURE_SYMBOLS " " + directory.Path("keep/lib.so"));
  std::ostringstream text;
  text << "Native Heap MemLeak Tracker Version 2.0:\nTotal memory(bytes): 4\n"
          "Allocation records: 1/1\nBacktrace size: 10\n\nsz 4 4 num 1 time 1  bt "
       << std::hex;
  for (int offset = 0; offset < 0x400; ++offset) text << "[" << library << "+0x" << offset << "] ";
  text << "\n==============================Java-Native Stack==============================\nEND";
  const std::string report = directory.Write("report", text.str());
  const std::string json = directory.Path("old.json");
  EXPECT_EQ(Shell(kMemleak + "export " + report + " --format json -o " + json).output, "");

  // Replaces the library with another build.
  Shell("cp " FIXTURE_HOOK_PLAIN " " + library + "; touch -d '+1 minute' " + library);
  const std::string diff = kMemleak + "diff ";
  const std::string warning = "memleak: names may be wrong: ";
  const Outcome plain = Shell(diff + report + " " + report);
  EXPECT_EQ(plain.output.find("known::Widget::Use"), std::string::npos);
  EXPECT_NE(plain.output.find(warning + library.substr(0, 8)), std::string::npos) << plain.output;
  EXPECT_NE(plain.output.find("--old-sysroot"), std::string::npos);
  const std::string against = " " + report + " --top 0";
  for (const std::string& old : {json, report + " --old-symbols " + directory.Path("keep")}) {
    const Outcome right = Shell(std::string(diff).append(old).append(against));
    EXPECT_NE(right.output.find("known::Widget::Use"), std::string::npos) << right.output;
    EXPECT_EQ(right.output.find("--old-sysroot"), std::string::npos) << right.output;
    EXPECT_NE(right.output.find("use --sysroot"), std::string::npos) << "of NEW";
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
