// SPDX-License-Identifier: Apache-2.0
// The report of a real store, as written to the file and to the device. Stacks, maps and log are
// fakes. ioctl and the clock are wrapped at link time.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <future>
#include <locale>

#include "backtrace/MapData.h"
#include "platform/paths.h"
#include "tests/records/fake_capture.h"
#include "tests/temporary_directory.h"

namespace {

constexpr std::size_t kTextLimit = 0x500000;

/// The fakes' results and observations.
struct World {
  std::string report_path;
  std::string device_path;
  std::string library = "/lib/liba.so";
  int ioctl_error = 0;
  std::vector<std::string> device_buffers;  // one for each ioctl
};
World world;

}  // namespace

extern "C" int __wrap_ioctl(int fd, unsigned long request, ...) {
  std::va_list arguments;
  va_start(arguments, request);
  world.device_buffers.emplace_back(va_arg(arguments, const char*), kTextLimit + 16);
  va_end(arguments);
  EXPECT_EQ(fcntl(fd, F_GETFL) & O_ACCMODE, O_WRONLY);
  EXPECT_EQ(request, 0xAF06u);
  // Clears wait, and the thread's own memory is not recorded.
  EXPECT_FALSE(std::async([] {
                 const std::unique_lock<SetMutex> lock(InitialiseLock(), std::try_to_lock);
                 return lock.owns_lock();
               }).get());
  const MemTrackControl* const control = MemTrackControl::GetInstance();
  EXPECT_FALSE(control->ThreadEnabled() || control->PltThreadEnabled());
  errno = world.ioctl_error;
  return world.ioctl_error == 0 ? 0 : -1;
}

// The functions that the report writer calls.
std::FILE* platform::OpenReportFile() {
  return std::fopen(world.report_path.c_str(), "w");
}
int platform::OpenExceptionDevice(std::string& path) {
  path = world.device_path;
  return open(path.c_str(), O_WRONLY);
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
  entry.name = world.library;
  *rel_pc = pc - 0x10000000;
  return pc < 0x10000000 ? nullptr : &entry;
}

namespace {

class ReportFileTest : public RecordStoreTest {
 protected:
  void SetUp() override {
    RecordStoreTest::SetUp();
    world = World();
    world.report_path = directory_.Path("allocations_dump");
    world.device_path = directory_.Write("kxlog_exception", "");
    fake_time = 1'700'000'000;
  }
  void AddBlock(std::size_t size, int age, std::vector<std::uint64_t> pcs) {
    fake_time -= age;
    Add(next_ += 16, size, std::move(pcs));
    fake_time += age;
  }
  std::string DumpAndReadFile() const {
    PointerData::DumpAllocationTracesToFile();
    return directory_.Read("allocations_dump");
  }

  const TemporaryDirectory directory_;
  std::uint64_t next_ = 0x1000;
};

struct GroupedDigits : std::numpunct<char> {
  std::string do_grouping() const override { return "\3"; }
};

TEST_F(ReportFileTest, FileAndDeviceGetTheWholeText) {
  for (int i = 0; i < 2; ++i) AddBlock(500'000, 86'400, {0x1000abcd, 0x5, 0x10000010, 0x6});
  AddBlock(7, 0, {});
  AddBlock(100, -2, {0x10000001});
  // Intentional: the report does not use the program's number format.
  const std::locale before = std::locale::global({std::locale::classic(), new GroupedDigits});
  const std::string text = DumpAndReadFile();
  std::locale::global(before);
  const std::string rule(30, '=');
  EXPECT_EQ(text,
            "Native Heap MemLeak Tracker Version 2.0:\n"
            "Total memory(bytes): 1000100\nAllocation records: 2/2\nBacktrace size: 10\n\n"
            "sz 500000 1000000 num 2 time 86400 86400  bt "
            "[/lib/liba.so+0xabcd] [unknow][/lib/liba.so+0x10] [unknow]\n"
            "sz 100 100 num 1 time -2  bt [/lib/liba.so+0x1] \n" +
                rule + "Java-Native Stack" + rule + "\nEND");
  ASSERT_EQ(world.device_buffers.size(), 1u);
  EXPECT_EQ(LogLines().back(), "4 MemLeak.Native: ioctl native stacktrace sucess,len:" +
                                   std::to_string(text.size()) + " ");
  EXPECT_TRUE(control_->ThreadEnabled() && control_->PltThreadEnabled());
  control_->DisableThread();  // a thread that was switched off before stays so
  DumpAndReadFile();
  EXPECT_FALSE(control_->ThreadEnabled());
}

TEST_F(ReportFileTest, ShowsTheFirstThousandRecords) {
  for (std::uint64_t i = 0; i < 1500; ++i) AddBlock(9, 0, {0x10000001 + i});
  const std::string text = DumpAndReadFile();
  EXPECT_NE(text.find("Allocation records: 1500/1000\n"), std::string::npos);
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 5 + 1000 + 1);
}

TEST_F(ReportFileTest, DeviceTextIsCutAtTheEndOfTheBuffer) {
  AddBlock(9, 0, {0x10000001});
  const std::size_t least = DumpAndReadFile().size() - world.library.size();
  // Texts with room for their NUL: exactly enough, one byte too few, far too few.
  for (const std::size_t length : {kTextLimit - 1, kTextLimit, kTextLimit + 70'000}) {
    SCOPED_TRACE(length);
    world.library = std::string(length - least, 'j');
    std::string text = DumpAndReadFile();
    ASSERT_EQ(text.size(), length);
    EXPECT_EQ(text.substr(length - 3), "END");
    const std::string& buffer = world.device_buffers.back();
    const std::uint64_t expected = std::min(length + 1, kTextLimit);
    EXPECT_EQ(buffer.substr(0, 8), std::string("\xFA\xFE\x77\x53\2\0\0\0", 8));
    EXPECT_EQ(buffer.substr(8, 8), std::string(reinterpret_cast<const char*>(&expected), 8));
    text.resize(kTextLimit, '\0');
    EXPECT_TRUE(buffer.substr(16) == text);
  }
}

TEST_F(ReportFileTest, FailureOfOneDestinationDoesNotAffectTheOther) {
  AddBlock(9, 0, {0x10000001});
  const std::string whole = DumpAndReadFile();
  // A directory with the report's name. Not even root can open it for writing.
  world.report_path = directory_.Path("");
  PointerData::DumpAllocationTracesToFile();
  EXPECT_EQ(LogLines().end()[-2],
            "6 MemLeak.Native: no permission to access /data/log/reliability/");
  EXPECT_EQ(world.device_buffers.size(), 2u);
  world.report_path = directory_.Path("allocations_dump");

  world.ioctl_error = ENOSPC;
  EXPECT_EQ(DumpAndReadFile(), whole);
  EXPECT_EQ(LogLines().back(),
            "6 MemLeak.Native: failed to save stacktrace,errno:No space left on device");
  ASSERT_EQ(remove(world.device_path.c_str()), 0);
  EXPECT_EQ(DumpAndReadFile(), whole);
  EXPECT_EQ(LogLines().back(),
            "6 MemLeak.Native: open " + world.device_path + " failed: No such file or directory\n");
}

}  // namespace
