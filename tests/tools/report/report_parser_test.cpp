// SPDX-License-Identifier: Apache-2.0
// Tests the report parser with the library's writer. Random records are read back unchanged. Damage
// removes only the damaged group or line. Maps, record store, clock and device are fakes.
#include "tools/report/report_parser.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <ctime>
#include <random>
#include <sstream>
#include <utility>
#include <vector>

#include "async_safe/log.h"
#include "backtrace/MapData.h"
#include "platform/paths.h"
#include "records/PointerData.h"
#include "records/PointerSet.h"
#include "records/record_pages.h"
#include "records/record_store.h"
#include "tests/temporary_directory.h"

namespace {

constexpr std::int64_t kNow = 1'700'000'000;

/// The fakes' results.
struct World {
  std::string report_path;
  std::vector<RecordStruct> records;
  std::uint64_t total = 0;
  std::uint64_t depth = 0;
  std::vector<MapEntry> mappings;  // a pc has the index above bit 31, the offset below
  PointerSet* sets = PointerSet::MakeAll();
};
World world;

}  // namespace

extern "C" {
std::time_t __wrap_time(std::time_t* /*result*/) {
  return kNow;
}
int async_safe_format_log(int /*priority*/, const char* /*tag*/, const char* /*format*/, ...) {
  return 0;
}
}

std::atomic<std::uint32_t> record_store::generation{0};
void RecordPages::WaitForOperations() {}
std::FILE* platform::OpenReportFile() {
  return std::fopen(world.report_path.c_str(), "w");
}
int platform::OpenExceptionDevice(std::string& /*path*/) {
  return -1;
}
void PointerData::GetInfo(std::uint8_t** /*info*/, std::size_t* overall_size,
                          std::size_t* info_size, std::size_t* total_memory,
                          std::size_t* backtrace_size, std::vector<RecordStruct>* list) {
  *info_size = 1;
  *overall_size = world.records.size();
  *total_memory = world.total;
  *backtrace_size = world.depth;
  *list = world.records;
}
MapData::MapData(std::string maps_path, platform::PcWidth width)
    : maps_path_(std::move(maps_path)), width_(width) {}
MapData::~MapData() = default;
MapData* MapData::GetInstance() {
  static MapData maps("", platform::kLinuxPcWidth);
  return &maps;
}
const MapEntry* MapData::Find(std::uintptr_t pc, std::uintptr_t* rel_pc) {
  *rel_pc = pc & 0xffffffff;
  return (pc >> 32) < world.mappings.size() ? &world.mappings[pc >> 32] : nullptr;
}

namespace memleak {
namespace {

using Random = std::mt19937_64;

/// A native group, or a Java-native one without ages.
struct Group {
  std::uint64_t size, total, count;
  std::vector<std::int64_t> ages;
  std::vector<std::pair<std::string, std::uint64_t>> frames;  // "?" for an unknown place
  bool operator==(const Group&) const = default;
};

struct Report {
  std::array<std::uint64_t, 4> header{};
  std::vector<Group> groups;
  std::size_t native = 0;  // number of native groups, which come first
  std::vector<std::uint64_t> damaged;
  bool complete = false;
};

Report Read(const std::string& text) {
  Report report;
  ReportSink sink;
  sink.native = [&](const NativeGroup& group) {
    Group& read =
        report.groups.emplace_back(Group{group.size, group.total, group.count, group.ages, {}});
    for (const ReportFrame& frame : group.frames) {
      read.frames.emplace_back(frame.known ? frame.library : "?", frame.offset);
    }
    ++report.native;
  };
  sink.java = [&](const JavaGroup& group) {
    Group& read = report.groups.emplace_back(Group{group.size, group.total, group.count, {}, {}});
    for (const JavaFrame& frame : group.frames) {
      read.frames.emplace_back(frame.function, frame.rel_pc);
    }
  };
  sink.damaged = [&](const DamagedLine& line) { report.damaged.push_back(line.number); };
  ReportHeader header;
  std::istringstream input(text);
  report.complete = ReadReport(input, sink, &header) == ReportEnd::kComplete;
  report.header = {header.total_bytes, header.groups, header.listed, header.backtrace_size};
  return report;
}

// A name of a mapping or a function. It may contain parts of the report's syntax.
std::string RandomName(Random& random) {
  constexpr std::array kParts = {"/",    "lib", " (deleted)", "[1] ", "+0x",      "12",
                                 "+0xg", "]y",  "\xff",       "ä",    "[unknow]", "#00 rel_pc "};
  std::string name = random() % 9 == 0 ? "" : random() % 2 == 0 ? "/" : "[";
  for (std::size_t parts = random() % 8; !name.empty() && parts > 0; --parts) {
    name += kParts[random() % kParts.size()];
  }
  if (random() % 1000 == 0) name += std::string(random() % 300'000, 'n');
  return name;
}

// Fills the world. Returns the report that the parser must read.
Report FillWorld(Random& random) {
  Report expected;
  world.mappings.resize(20);
  for (MapEntry& mapping : world.mappings) mapping.name = RandomName(random);
  world.records.assign(random() % 20 == 0 ? 1005 : random() % 8, {});
  const std::uint64_t records = world.records.size();
  world.total = random();
  world.depth = random() % 100;
  expected.header = {world.total, records, std::min<std::uint64_t>(1000, records), world.depth};
  for (std::size_t i = 0; i < records; ++i) {
    RecordStruct& record = world.records[i];
    record = {random() >> (random() % 64), random() >> (random() % 64), random() % 999, 0, {}, {}};
    Group group{record.size, record.total, record.num, {}, {}};
    for (std::size_t count = random() % 31; count > 0; --count) {
      group.ages.push_back(static_cast<std::int64_t>(random() % 1000) - 3);
      record.times.push_back(kNow - group.ages.back());
    }
    for (std::size_t count = random() % 9; count > 0; --count) {
      const std::uint64_t mapping = random() % 25;
      const std::uint64_t offset = random() & 0xffffffff;
      record.frames.push_back(mapping << 32 | offset);
      const bool known = mapping < world.mappings.size();
      group.frames.emplace_back(known ? world.mappings[mapping].name : "?", known ? offset : 0);
    }
    // The tracker omits records without frames or times.
    if (i < 1000 && !group.frames.empty() && !group.ages.empty()) expected.groups.push_back(group);
  }
  expected.native = expected.groups.size();
  std::uint64_t size = 0;  // all different, so the order of the groups is known
  for (std::uint64_t i = 0; i < PointerSet::kCount; ++i) {
    PointerSet& set = world.sets[i];
    set.java_pointers.clear();
    set.unwind_frames.clear();
    if (random() % 8 != 0) continue;
    UnwindFrameInfoType& info = set.unwind_frames[2];
    info.references = 1 + random() % 99;
    set.java_pointers[1] = {++size, 2};
    Group group{size, size * info.references, info.references, {}, {}};
    for (std::size_t count = 1 + random() % 120; count > 0; --count) {
      info.frames.push_back({random(), 0, RandomName(random)});
      group.frames.emplace_back(info.frames.back().function_name, info.frames.back().rel_pc);
    }
    expected.groups.push_back(group);
  }
  std::sort(expected.groups.begin() + static_cast<std::ptrdiff_t>(expected.native),
            expected.groups.end(), [](const Group& a, const Group& b) {
              return std::pair(a.total, a.size) > std::pair(b.total, b.size);
            });
  return expected;
}

// Reads `text`. Line `number`, counted from 1, was replaced.
Report ReadDamaged(std::string text, std::uint64_t number) {
  std::size_t begin = 0;
  for (std::uint64_t line = 1; line < number; ++line) begin = text.find('\n', begin) + 1;
  return Read(text.replace(begin, text.find('\n', begin) - begin, "garbage"));
}

TEST(ReportParser, ReadsWhatTheLibraryWrites) {
  const TemporaryDirectory directory;
  world.report_path = directory.Path("report");
  for (unsigned seed = 1; seed <= 300 && !testing::Test::HasFailure(); ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    Random random(seed);
    const Report expected = FillWorld(random);
    PointerData::DumpAllocationTracesToFile();
    const std::string text = directory.Read("report");
    const Report whole = Read(text);
    EXPECT_TRUE(whole.complete && whole.damaged.empty());
    EXPECT_EQ(whole.header, expected.header);
    EXPECT_EQ(whole.groups, expected.groups);
    EXPECT_EQ(whole.native, expected.native);

    // From a truncated text the parser reads the groups before the cut.
    const Report cut = Read(text.substr(0, random() % text.size()));
    EXPECT_FALSE(cut.complete);
    ASSERT_LE(cut.groups.size(), whole.groups.size());
    EXPECT_TRUE(std::equal(cut.groups.begin(), cut.groups.end(), whole.groups.begin()));

    const std::uint64_t head = 2 + random() % 3;
    EXPECT_EQ(ReadDamaged(text, head).damaged, std::vector<std::uint64_t>{head});
    if (whole.groups.empty()) continue;
    // A damaged line removes its group. If it is the first line of a Java-native group, it may have
    // been a frame of the group before.
    const std::size_t lost = random() % whole.groups.size();
    const auto lines = [&](std::size_t group) {
      return group < whole.native ? 1 : 1 + whole.groups[group].frames.size();
    };
    const std::size_t within = random() % lines(lost);
    std::uint64_t line = 6 + within + (lost < whole.native ? 0 : 1);
    for (std::size_t i = 0; i < lost; ++i) line += lines(i);
    std::vector<Group> rest = whole.groups;
    const auto end = rest.begin() + static_cast<std::ptrdiff_t>(lost) + 1;
    rest.erase(end - (within == 0 && lost > whole.native ? 2 : 1), end);
    const Report read = ReadDamaged(text, line);
    EXPECT_EQ(read.groups, rest);
    EXPECT_EQ(read.damaged, std::vector<std::uint64_t>{line});
  }
}

const std::string kHead =
    "Native Heap MemLeak Tracker Version 2.0:\nTotal memory(bytes): 200\n"
    "Allocation records: 1500/1000\nBacktrace size: 10\n\n";
const std::string kGroup = "sz 1 1 num 1 time 0  bt [/a+0x1] \n";
const std::string kJavaRule =
    "==============================Java-Native Stack==============================\n";

TEST(ReportParser, ReadsTextsThatTheLibraryDoesNotWrite) {
  // Some lines of the head are missing, and the groups too.
  for (const char* lacking : {"Total", "Allocation", "Backtrace"}) {
    const std::size_t begin = kHead.find(lacking);
    const std::string head = std::string(kHead).erase(begin, kHead.find('\n', begin) + 1 - begin);
    for (const std::string& group : {kGroup, std::string()}) {
      EXPECT_EQ(Read(head + group + kJavaRule + "END").damaged, std::vector<std::uint64_t>{0});
    }
  }
  // Editors add a newline at the end.
  for (const char* closing : {"", "\n", "\r\n"}) {
    const Report copy = Read(kHead + kJavaRule + "sz 8 8 num 1\n#00 rel_pc 0 f\nEND" + closing);
    EXPECT_TRUE(copy.complete);
    EXPECT_TRUE(copy.damaged.empty());
    EXPECT_EQ(copy.groups.size(), 1U);
  }
  const Report longer = Read(kHead + kJavaRule + "END\nsz 9 9 num 1\n");
  EXPECT_FALSE(longer.complete);
  EXPECT_EQ(longer.damaged, std::vector<std::uint64_t>{7});
  for (const char* line : {"sz 1 1 num 1 time 0  bt [/a+0x1]", "sz 1 1 num 1 time 0  bt [/a+0x] ",
                           "sz 99999999999999999999 1 num 1 time 0  bt "}) {
    const Report read = Read(kHead + line + "\n" + kGroup + "END");
    EXPECT_EQ(read.damaged, std::vector<std::uint64_t>{6}) << line;
    EXPECT_EQ(read.groups.size(), 1U);
  }
  const Report absurd =
      Read(kHead + std::string(kMaxLineBytes + 1'000'000, 'x') + "\n" + kGroup + kJavaRule + "END");
  EXPECT_EQ(absurd.native, 1U);
  EXPECT_EQ(absurd.damaged, std::vector<std::uint64_t>{6});
}

}  // namespace
}  // namespace memleak
