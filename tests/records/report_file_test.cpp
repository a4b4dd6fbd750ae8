// The report as file and device get it. Records, maps and log are fakes; malloc, ioctl and time are
// wrapped at link time.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <future>
#include <iterator>
#include <locale>

#include "backtrace/MapData.h"
#include "log_capture.h"
#include "platform/paths.h"
#include "records/PointerData.h"
#include "records/PointerSet.h"
#include "tracker/MemTrackControl.h"

namespace {

constexpr std::int64_t kNow = 1'700'000'000;
constexpr std::size_t kTextLimit = 0x500000;

/// What the fakes hand out and what they saw.
struct World {
  std::string root;
  std::vector<RecordStruct> records;
  std::size_t total_memory = 0;
  std::size_t backtrace_size = 0;
  std::size_t filler = 0;  // bytes that the Java-native section is made of
  bool malloc_fails = false;
  int ioctl_error = 0;

  std::vector<std::string> device_buffers;  // one for each ioctl
  bool not_recorded = true;
  bool lock_held = true;

  std::string ReportPath() const { return root + "/allocations_dump"; }
  std::string DevicePath() const { return root + "/kxlog_exception"; }
};
World world;

/// Looks at lock and thread switches from inside the dump.
void ObserveDump() {
  const bool locked = std::async(std::launch::async, [] {
                        if (!InitialiseLock().try_lock()) return true;
                        InitialiseLock().unlock();
                        return false;
                      }).get();
  world.lock_held = world.lock_held && locked;
  const MemTrackControl* control = MemTrackControl::GetInstance();
  world.not_recorded = world.not_recorded && control != nullptr && !control->ThreadEnabled() &&
                       !control->PltThreadEnabled();
}

}  // namespace

extern "C" {
void* __real_malloc(std::size_t size);
std::time_t __real_time(std::time_t* result);

void* __real_calloc(std::size_t count, std::size_t size);

void* __wrap_malloc(std::size_t size) {
  return world.malloc_fails && size == kTextLimit + 16 ? nullptr : __real_malloc(size);
}

// The compiler may make one calloc of malloc and zeroing.
void* __wrap_calloc(std::size_t count, std::size_t size) {
  if (world.malloc_fails && count * size == kTextLimit + 16) return nullptr;
  return __real_calloc(count, size);
}

std::time_t __wrap_time(std::time_t* result) {
  return world.root.empty() ? __real_time(result) : kNow;
}

int __wrap_ioctl(int fd, unsigned long request, ...) {
  std::va_list arguments;
  va_start(arguments, request);
  const char* buffer = va_arg(arguments, const char*);
  va_end(arguments);
  struct stat opened = {};
  struct stat device = {};
  fstat(fd, &opened);
  stat(world.DevicePath().c_str(), &device);
  EXPECT_EQ(opened.st_ino, device.st_ino);
  EXPECT_EQ(fcntl(fd, F_GETFL) & O_ACCMODE, O_WRONLY);
  EXPECT_EQ(request, 0xAF06u);
  world.device_buffers.emplace_back(buffer, kTextLimit + 16);
  ObserveDump();
  errno = world.ioctl_error;
  return world.ioctl_error == 0 ? 0 : -1;
}
}

// The neighbours of the report writer.
std::mutex& InitialiseLock() {
  static std::mutex lock;
  return lock;
}
std::string platform::ReportPath() {
  return world.ReportPath();
}
std::string platform::ExceptionDevicePath() {
  return world.DevicePath();
}

std::atomic<MemTrackControl*> MemTrackControl::instance_{nullptr};
MemTrackControl* MemTrackControl::CreateInstance() {
  static MemTrackControl control;
  instance_ = &control;
  return &control;
}
bool MemTrackControl::DebugDisableInit() {
  pthread_key_create(&debug_disable_key_, nullptr);
  pthread_key_create(&plt_disable_key_, nullptr);
  keys_valid_ = true;
  return true;
}

void PointerData::GetInfo(std::uint8_t**, std::size_t* overall_size, std::size_t* info_size,
                          std::size_t* total_memory, std::size_t* backtrace_size,
                          std::vector<RecordStruct>* list) {
  ObserveDump();
  if (world.records.empty()) return;
  *backtrace_size = world.backtrace_size;
  *info_size = *backtrace_size * 8 + 272;
  *overall_size = *info_size * world.records.size();
  *total_memory = world.total_memory;
  *list = world.records;
}
void PointerData::ReportJavaNativeNodes(std::ostream& out) {
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
  ObserveDump();
  static MapEntry entry;
  entry.name = "/lib/liba.so";
  if (pc < 0x10000000) return nullptr;
  *rel_pc = pc - 0x10000000;
  return &entry;
}

namespace {

class ReportFileTest : public testing::Test {
 protected:
  void SetUp() override {
    world = World();
    std::string root = testing::TempDir() + "reportXXXXXX";
    ASSERT_NE(mkdtemp(root.data()), nullptr);
    world.root = root;
    std::ofstream device(world.DevicePath());
    ASSERT_TRUE(device);
    LogLines().clear();
    if (MemTrackControl::GetInstance() == nullptr) {
      MemTrackControl::CreateInstance()->DebugDisableInit();
    }
  }
  void TearDown() override {
    remove(world.ReportPath().c_str());
    remove(world.DevicePath().c_str());
    remove(world.root.c_str());
    world.root.clear();
  }

  static std::string File() {
    std::ifstream file(world.ReportPath(), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  }
  /// The number at `offset` of the device buffer, least significant byte first.
  static std::uint64_t Field(std::size_t offset, std::size_t width) {
    std::uint64_t value = 0;
    for (std::size_t i = width; i-- > 0;) {
      value = value << 8 | static_cast<unsigned char>(world.device_buffers.at(0)[offset + i]);
    }
    return value;
  }
  static RecordStruct Record(std::uint64_t size, std::uint64_t num,
                             std::vector<std::uint64_t> frames, std::vector<std::int64_t> times) {
    RecordStruct record;
    record.size = size;
    record.num = num;
    record.total = size * num;
    record.frame_count = frames.size();
    record.frames = std::move(frames);
    record.times = std::move(times);
    return record;
  }
  static bool Logged(const std::string& line) {
    return std::find(LogLines().begin(), LogLines().end(), line) != LogLines().end();
  }
  static constexpr std::size_t kEmptyReportBytes = 110;
};

TEST_F(ReportFileTest, TextGoesWholeToFileAndDevice) {
  world.total_memory = 1'000'100;
  world.backtrace_size = 12;
  world.records = {
      Record(500'000, 2, {0x1000abcd, 0x5, 0x10000010, 0x6}, {kNow - 7, kNow, kNow + 2}),
      Record(7, 1, {}, {kNow}), Record(8, 1, {0x10000010}, {}),
      Record(100, 1, {0x10000001}, {kNow - 86'400})};
  world.filler = 3;
  PointerData::DumpAllocationTracesToFile();

  const std::string expected =
      "Native Heap MemLeak Tracker Version 2.0:\n"
      "Total memory(bytes): 1000100\n"
      "Allocation records: 4/4\n"
      "Backtrace size: 12\n"
      "\n"
      "sz 500000 1000000 num 2 time 7 0 -2  bt "
      "[/lib/liba.so+0xabcd] [unknow][/lib/liba.so+0x10] [unknow]\n"
      "sz 100 100 num 1 time 86400  bt [/lib/liba.so+0x1] \n"
      "jjjEND";
  EXPECT_EQ(File(), expected);
  ASSERT_EQ(world.device_buffers.size(), 1u);
  EXPECT_EQ(world.device_buffers[0].substr(16, expected.size()), expected);
  EXPECT_EQ(world.device_buffers[0].find_first_not_of('\0', 16 + expected.size()),
            std::string::npos);
  EXPECT_EQ(LogLines(),
            (std::vector<std::string>{
                "4 MemLeak.Native: ReportNodes:1000100:4:12", "6 MemLeak.Native: codeMap is null",
                "6 MemLeak.Native: codeMap is null", "6 MemLeak.Native: not be here 0 1",
                "6 MemLeak.Native: not be here 1 0",
                "4 MemLeak.Native: ioctl native stacktrace sucess,len:" +
                    std::to_string(expected.size()) + " "}));
}

TEST_F(ReportFileTest, WithoutRecordsTheFrameOfTheReportRemains) {
  PointerData::DumpAllocationTracesToFile();
  EXPECT_EQ(File(),
            "Native Heap MemLeak Tracker Version 2.0:\nTotal memory(bytes): 0\n"
            "Allocation records: 0/0\nBacktrace size: 0\n\nEND");
}

TEST_F(ReportFileTest, ShowsTheFirstThousandRecords) {
  world.backtrace_size = 10;
  for (std::uint64_t i = 0; i < 1500; ++i) {
    world.records.push_back(Record(3000 - i, 1, {0x10000001}, {kNow}));
  }
  PointerData::DumpAllocationTracesToFile();
  const std::string text = File();
  EXPECT_NE(text.find("Allocation records: 1500/1000\n"), std::string::npos);
  std::size_t lines = 0;
  for (std::size_t at = text.find("\nsz "); at != std::string::npos;
       at = text.find("\nsz ", at + 1)) {
    ++lines;
  }
  EXPECT_EQ(lines, 1000u);
  EXPECT_NE(text.find("\nsz 2001 "), std::string::npos);
  EXPECT_EQ(text.find("\nsz 2000 "), std::string::npos);
}

TEST_F(ReportFileTest, DeviceTextIsCutWhereTheBufferEnds) {
  // A text that leaves room for its NUL, one that just does, one that just does not, a longer one.
  for (const std::size_t length :
       {kEmptyReportBytes, kTextLimit - 1, kTextLimit, kTextLimit + 70'000}) {
    SCOPED_TRACE(length);
    world.device_buffers.clear();
    world.filler = length - kEmptyReportBytes;
    PointerData::DumpAllocationTracesToFile();
    const std::string text = File();
    ASSERT_EQ(text.size(), length);
    EXPECT_EQ(text.substr(length - 3), "END");
    ASSERT_EQ(world.device_buffers.size(), 1u);
    EXPECT_EQ(Field(0, 4), 0x5377FEFAu);
    EXPECT_EQ(Field(4, 4), 2u);
    EXPECT_EQ(Field(8, 8), std::min(length + 1, kTextLimit));
    const std::size_t copied = std::min(length, kTextLimit);
    EXPECT_EQ(world.device_buffers[0].compare(16, copied, text, 0, copied), 0);
    if (copied < kTextLimit) {
      EXPECT_EQ(world.device_buffers[0][16 + copied], '\0');
    }
    EXPECT_TRUE(Logged(
        "4 MemLeak.Native: ioctl native stacktrace sucess,len:" + std::to_string(length) + " "));
  }
}

TEST_F(ReportFileTest, OneDestinationThatFailsLeavesTheOther) {
  // A directory in the report's place cannot be opened for writing, whoever asks.
  ASSERT_EQ(mkdir(world.ReportPath().c_str(), 0700), 0);
  PointerData::DumpAllocationTracesToFile();
  EXPECT_TRUE(Logged("6 MemLeak.Native: no permission to access /data/log/reliability/"));
  EXPECT_EQ(world.device_buffers.size(), 1u);
  ASSERT_EQ(rmdir(world.ReportPath().c_str()), 0);

  world.ioctl_error = ENOSPC;
  PointerData::DumpAllocationTracesToFile();
  EXPECT_EQ(LogLines().back(), std::string("6 MemLeak.Native: failed to save stacktrace,errno:") +
                                   std::strerror(ENOSPC));
  EXPECT_EQ(File().size(), kEmptyReportBytes);

  ASSERT_EQ(remove(world.DevicePath().c_str()), 0);
  ASSERT_EQ(remove(world.ReportPath().c_str()), 0);
  PointerData::DumpAllocationTracesToFile();
  EXPECT_EQ(LogLines().back(), "6 MemLeak.Native: open " + world.DevicePath() +
                                   " failed: " + std::strerror(ENOENT) + "\n");
  EXPECT_EQ(File().size(), kEmptyReportBytes);
  EXPECT_EQ(world.device_buffers.size(), 2u);
}

TEST_F(ReportFileTest, WithoutATransferBufferThereIsNoReport) {
  world.malloc_fails = true;
  PointerData::DumpAllocationTracesToFile();
  EXPECT_EQ(LogLines(),
            std::vector<std::string>{"6 MemLeak.Native: FAILED TO ALLOC STACKINFO MEMORY!"});
  EXPECT_NE(access(world.ReportPath().c_str(), F_OK), 0);
  EXPECT_TRUE(world.device_buffers.empty());

  world.malloc_fails = false;
  PointerData::DumpAllocationTracesToFile();  // the lock is free again
  EXPECT_EQ(File().size(), kEmptyReportBytes);
}

TEST_F(ReportFileTest, HoldsTheLockAndIsNotRecordedUntilItEnds) {
  const MemTrackControl* const control = MemTrackControl::GetInstance();
  world.records = {Record(8, 1, {0x10000010}, {kNow})};
  PointerData::DumpAllocationTracesToFile();
  EXPECT_TRUE(world.lock_held);
  EXPECT_TRUE(world.not_recorded);
  EXPECT_TRUE(control->ThreadEnabled());
  EXPECT_TRUE(control->PltThreadEnabled());
  EXPECT_TRUE(InitialiseLock().try_lock());
  InitialiseLock().unlock();

  // A thread that was switched off before stays so.
  control->DisableThread();
  PointerData::DumpAllocationTracesToFile();
  EXPECT_FALSE(control->ThreadEnabled());
  EXPECT_TRUE(control->PltThreadEnabled());
  control->EnableThread();
}

TEST_F(ReportFileTest, NumbersAreWrittenWithoutTheProgramsLocale) {
  struct Grouping : std::numpunct<char> {
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
  };
  const std::locale before = std::locale::global(std::locale(std::locale::classic(), new Grouping));
  world.records = {Record(1'234'567, 1, {0x1abcdef0}, {kNow - 5000})};
  PointerData::DumpAllocationTracesToFile();
  std::locale::global(before);
  EXPECT_NE(File().find("sz 1234567 1234567 num 1 time 5000  bt [/lib/liba.so+0xabcdef0] \n"),
            std::string::npos);
}

}  // namespace
