// SPDX-License-Identifier: Apache-2.0
// The report as written to the file and to the device. Records, maps and log are fakes. ioctl and
// the clock are wrapped at link time.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <future>
#include <locale>

#include "backtrace/MapData.h"
#include "log_capture.h"
#include "platform/paths.h"
#include "records/PointerData.h"
#include "records/PointerSet.h"
#include "records/report_text.h"
#include "tests/temporary_directory.h"
#include "tracker/control/MemTrackControl.h"

namespace {

constexpr std::int64_t kNow = 1'700'000'000;
constexpr std::size_t kTextLimit = 0x500000;

/// The fakes' results and observations.
struct World {
  std::string report_path;
  std::string device_path;
  std::vector<RecordStruct> records;
  std::size_t filler = 0;  // size of the Java-native section
  int ioctl_error = 0;
  std::vector<std::string> device_buffers;  // one for each ioctl
  bool locked_throughout = true;
  bool recorded = false;
};
World world;

/// Checks the lock and the thread switches from inside the dump.
void ObserveDump() {
  const bool free = std::async([] {
                      const std::unique_lock<SetMutex> lock(InitialiseLock(), std::try_to_lock);
                      return lock.owns_lock();
                    }).get();
  if (free) world.locked_throughout = false;
  const MemTrackControl* const control = MemTrackControl::GetInstance();
  if (control->ThreadEnabled() || control->PltThreadEnabled()) world.recorded = true;
}

}  // namespace

extern "C" {
std::time_t __wrap_time(std::time_t* /*result*/) {
  return kNow;
}
int __wrap_ioctl(int fd, unsigned long request, ...) {
  std::va_list arguments;
  va_start(arguments, request);
  world.device_buffers.emplace_back(va_arg(arguments, const char*), kTextLimit + 16);
  va_end(arguments);
  struct stat opened = {};
  struct stat device = {};
  fstat(fd, &opened);
  stat(world.device_path.c_str(), &device);
  EXPECT_EQ(opened.st_ino, device.st_ino);
  EXPECT_EQ(fcntl(fd, F_GETFL) & O_ACCMODE, O_WRONLY);
  EXPECT_EQ(request, 0xAF06u);
  ObserveDump();
  errno = world.ioctl_error;
  return world.ioctl_error == 0 ? 0 : -1;
}
}

// The functions that the report writer calls.
SetMutex& InitialiseLock() {
  static SetMutex lock;
  return lock;
}
std::FILE* platform::OpenReportFile() {
  return std::fopen(world.report_path.c_str(), "w");
}
int platform::OpenExceptionDevice(std::string& path) {
  path = world.device_path;
  return open(path.c_str(), O_WRONLY);
}
void PointerData::GetInfo(std::uint8_t** /*info*/, std::size_t* overall_size,
                          std::size_t* info_size, std::size_t* total_memory,
                          std::size_t* backtrace_size, std::vector<RecordStruct>* list) {
  ObserveDump();
  if (world.records.empty()) return;
  *backtrace_size = 12;
  *info_size = 12 * 8 + 272;
  *overall_size = *info_size * world.records.size();
  *total_memory = 1'000'100;
  *list = world.records;
}
void PointerData::ReportJavaNativeNodes(ReportText& out) {
  out << std::string(world.filler, 'j');
}
MapData::MapData(std::string maps_path, platform::PcWidth width)
    : maps_path_(std::move(maps_path)), width_(width) {}
MapData::~MapData() = default;
MapData* MapData::GetInstance() {
  static MapData maps("", platform::kLinuxPcWidth);
  return &maps;
}
const MapEntry* MapData::Find(std::uintptr_t pc, std::uintptr_t* rel_pc) {
  static MapEntry entry;
  entry.name = "/lib/liba.so";
  *rel_pc = pc - 0x10000000;
  return pc < 0x10000000 ? nullptr : &entry;
}

namespace {

class ReportFileTest : public testing::Test {
 protected:
  void SetUp() override {
    world = World();
    world.report_path = directory_.Path("allocations_dump");
    world.device_path = directory_.Write("kxlog_exception", "");
    LogLines().clear();
    ASSERT_TRUE(MemTrackControl::CreateInstance()->DebugDisableInit());
  }
  std::string DumpAndReadFile() const {
    PointerData::DumpAllocationTracesToFile();
    return directory_.Read("allocations_dump");
  }
  static RecordStruct Record(std::uint64_t size, std::uint64_t num,
                             std::vector<std::uint64_t> frames, std::vector<std::int64_t> times) {
    return {size, size * num, num, frames.size(), std::move(frames), std::move(times)};
  }

  const std::string empty_report_ =
      "Native Heap MemLeak Tracker Version 2.0:\nTotal memory(bytes): 0\n"
      "Allocation records: 0/0\nBacktrace size: 0\n\nEND";
  const TemporaryDirectory directory_;
};

struct GroupedDigits : std::numpunct<char> {
  std::string do_grouping() const override { return "\3"; }
};

TEST_F(ReportFileTest, FileAndDeviceGetTheWholeText) {
  world.records = {
      Record(500'000, 2, {0x1000abcd, 0x5, 0x10000010, 0x6}, {kNow - 7, kNow, kNow + 2}),
      Record(7, 1, {}, {kNow}), Record(8, 1, {0x10000010}, {}),
      Record(100, 1, {0x10000001}, {kNow - 86'400})};
  world.filler = 3;
  // Intentional: the report does not use the program's number format.
  const std::locale before = std::locale::global({std::locale::classic(), new GroupedDigits});
  const std::string text = DumpAndReadFile();
  std::locale::global(before);
  EXPECT_EQ(text,
            "Native Heap MemLeak Tracker Version 2.0:\n"
            "Total memory(bytes): 1000100\nAllocation records: 4/4\nBacktrace size: 12\n\n"
            "sz 500000 1000000 num 2 time 7 0 -2  bt "
            "[/lib/liba.so+0xabcd] [unknow][/lib/liba.so+0x10] [unknow]\n"
            "sz 100 100 num 1 time 86400  bt [/lib/liba.so+0x1] \n"
            "jjjEND");
  EXPECT_EQ(LogLines(),
            (std::vector<std::string>{
                "4 MemLeak.Native: ReportNodes:1000100:4:12", "6 MemLeak.Native: codeMap is null",
                "6 MemLeak.Native: codeMap is null", "6 MemLeak.Native: not be here 0 1",
                "6 MemLeak.Native: not be here 1 0",
                "4 MemLeak.Native: ioctl native stacktrace sucess,len:" +
                    std::to_string(text.size()) + " "}));

  EXPECT_TRUE(world.locked_throughout);
  EXPECT_FALSE(world.recorded);
  const MemTrackControl* const control = MemTrackControl::GetInstance();
  EXPECT_TRUE(control->ThreadEnabled());
  EXPECT_TRUE(control->PltThreadEnabled());
  control->DisableThread();  // a thread that was switched off before stays so
  DumpAndReadFile();
  EXPECT_FALSE(control->ThreadEnabled());
}

TEST_F(ReportFileTest, ShowsTheFirstThousandRecords) {
  world.records.assign(1500, Record(9, 1, {0x10000001}, {kNow}));
  const std::string text = DumpAndReadFile();
  EXPECT_NE(text.find("Allocation records: 1500/1000\n"), std::string::npos);
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 5 + 1000);
}

TEST_F(ReportFileTest, DeviceTextIsCutAtTheEndOfTheBuffer) {
  // Texts with room for their NUL: more than enough, exactly enough, one byte too few, far too few.
  for (const std::size_t length :
       {empty_report_.size(), kTextLimit - 1, kTextLimit, kTextLimit + 70'000}) {
    SCOPED_TRACE(length);
    world.device_buffers.clear();
    world.filler = length - empty_report_.size();
    std::string text = DumpAndReadFile();
    ASSERT_EQ(text.size(), length);
    EXPECT_EQ(text.substr(length - 3), "END");
    ASSERT_EQ(world.device_buffers.size(), 1u);
    const std::string& buffer = world.device_buffers[0];
    EXPECT_EQ(buffer.substr(0, 8), std::string("\xFA\xFE\x77\x53\2\0\0\0", 8));
    std::string bytes_of_length;
    for (std::size_t rest = std::min(length + 1, kTextLimit), i = 0; i < 8; ++i, rest >>= 8) {
      bytes_of_length += static_cast<char>(rest & 0xFF);
    }
    EXPECT_EQ(buffer.substr(8, 8), bytes_of_length);
    text.resize(kTextLimit, '\0');
    EXPECT_TRUE(buffer.substr(16) == text);
  }
}

TEST_F(ReportFileTest, FailureOfOneDestinationDoesNotAffectTheOther) {
  // A directory with the report's name. Not even root can open it for writing.
  ASSERT_EQ(mkdir(world.report_path.c_str(), 0700), 0);
  PointerData::DumpAllocationTracesToFile();
  EXPECT_EQ(LogLines().at(1), "6 MemLeak.Native: no permission to access /data/log/reliability/");
  EXPECT_EQ(world.device_buffers.size(), 1u);
  ASSERT_EQ(rmdir(world.report_path.c_str()), 0);

  world.ioctl_error = ENOSPC;
  EXPECT_EQ(DumpAndReadFile(), empty_report_);
  EXPECT_EQ(LogLines().back(),
            "6 MemLeak.Native: failed to save stacktrace,errno:No space left on device");

  ASSERT_EQ(remove(world.device_path.c_str()), 0);
  EXPECT_EQ(DumpAndReadFile(), empty_report_);
  EXPECT_EQ(LogLines().back(),
            "6 MemLeak.Native: open " + world.device_path + " failed: No such file or directory\n");
  EXPECT_EQ(world.device_buffers.size(), 2u);
}

}  // namespace
