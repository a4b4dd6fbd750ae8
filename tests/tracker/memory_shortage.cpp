// SPDX-License-Identifier: Apache-2.0
// memory_shortage [SCENARIO...]: the real library file in a process without memory.
//
// Each scenario runs in child processes. The n-th memory request of the process fails, alone or
// with all later ones, for growing n until there are fewer than n requests. The child must survive
// and return or log the expected result. When memory is available again, the tracker must work.
// Prints a line for each failure and the number of children. Exit code 1 if a child fails.
// MEMLEAK_TRACKER_ROOT names a directory for reports, MEMLEAK_TRACKER_LOG the file "log" there.
#include <malloc.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <regex>
#include <string>

#include "tests/control_signal.h"
#include "tracker/MallocMemTrack.h"

#define CHECK(condition)                                                                         \
  do {                                                                                           \
    if (!(condition)) {                                                                          \
      std::fprintf(stderr, "line %d: not so: %s\n%s", __LINE__, #condition, Read("log").data()); \
      _exit(1);                                                                                  \
    }                                                                                            \
  } while (false)

namespace {

constexpr int kNothingRefused = 77;
/// The tracker's tables request at least this many bytes.
constexpr std::size_t kTableBytes = 4096;

std::atomic<bool> armed{false};
/// Requests up to the one that fails. If `onward` is set, the later ones fail too.
std::atomic<long> requests_left{0};
bool onward = false;
/// Smaller requests are not counted.
std::size_t least_size = 0;
/// Between malloc_disable and malloc_enable.
bool allocator_locked = false;

/// Whether to refuse a request.
bool Refused(std::size_t size) {
  if (!armed || size < least_size) return false;
  const long left = requests_left.fetch_sub(1);
  if (left > 1 || (left < 1 && !onward)) return false;
  errno = ENOMEM;
  return true;
}

}  // namespace

#pragma GCC visibility push(default)
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);

void* malloc(std::size_t size) {
  // A real allocator would wait for its own lock.
  if (allocator_locked && size >= kTableBytes) std::abort();
  return Refused(size) ? nullptr : __libc_malloc(size);
}
void* calloc(std::size_t count, std::size_t size) {
  return Refused(count * size) ? nullptr : __libc_calloc(count, size);
}
void* realloc(void* block, std::size_t size) {
  return Refused(size) ? nullptr : __libc_realloc(block, size);
}
void* memalign(std::size_t alignment, std::size_t size) {
  return Refused(size) ? nullptr : __libc_memalign(alignment, size);
}
void* mmap(void* address, std::size_t size, int protection, int flags, int file, off_t offset) {
  if (Refused(size)) return reinterpret_cast<void*>(-1);
  return reinterpret_cast<void*>(syscall(SYS_mmap, address, size, protection, flags, file, offset));
}
}
#pragma GCC visibility pop

// In a library that calls mmap and munmap through slots that can be hooked.
extern "C" void* MapOne(std::size_t size);
extern "C" int UnmapOne(void* mapping, std::size_t size);

namespace {

const std::string directory = std::string(std::getenv("MEMLEAK_TRACKER_ROOT")) + "/";
const std::string heap_dump = directory + "heap";
constexpr char report_name[] = "data/log/reliability/allocations_dump";

std::string Read(const std::string& name) {
  std::ifstream file(directory + name);
  return {std::istreambuf_iterator<char>(file), {}};
}
bool Logged(const char* pattern) {
  return std::regex_search(Read("log"), std::regex(pattern));
}
/// The number in the first match of `pattern`; 0 without a match.
unsigned long Number(const std::string& text, const char* pattern) {
  std::smatch match;
  return std::regex_search(text, match, std::regex(pattern)) ? std::stoul(match[1]) : 0;
}

/// The number of links of a directory gives its subdirectories, here one per thread. Allocates
/// nothing.
nlink_t Threads() {
  struct stat tasks = {};
  stat("/proc/self/task", &tasks);
  return tasks.st_nlink;
}
nlink_t threads_before = 0;

/// Sends a command, which runs on this thread, and waits for the report that it may start.
void Send(std::uint64_t word) {
  SendControlSignal(getpid(), word);
  while (Threads() > threads_before) usleep(200);
}

bool Start() {
  static std::uint32_t zygote_child = 0;
  static MallocDispatch table = {};
  table.malloc = malloc;
  table.free = free;
  table.calloc = calloc;
  table.realloc = realloc;
  table.memalign = memalign;
  table.aligned_alloc = memalign;
  table.malloc_usable_size = [](const void* block) {
    return malloc_usable_size(const_cast<void*>(block));
  };
  table.malloc_disable = [] { allocator_locked = true; };
  table.malloc_enable = [] { allocator_locked = false; };
  return track_initialize(&table, reinterpret_cast<bool*>(&zygote_child), "");
}
void StartRecording() {
  CHECK(Start());
  Send(0x10);
}

/// The blocks of a scenario.
void* blocks[1500];

__attribute__((noinline)) void* Allocate(std::size_t size) {
  void* block = track_malloc(size);
  __asm__ volatile("" : "+r"(block));
  return block;
}
bool IsRecorded(void* block) {
  std::uintptr_t frames[4];
  return track_malloc_backtrace(block, frames, 4) > 0;
}
/// Each block is recorded, unless the log has a line about a lost one.
void CheckBlocks() {
  const bool lacking = Logged("no memory to record a block");
  for (void* block : blocks) CHECK(block == nullptr || lacking || IsRecorded(block));
}

void Nothing() {}

bool answer = false;

void TryStart() {
  answer = Start();
}
void CheckStart() {
  CHECK(answer || Start());
}
void CallEntries() {
  int i = 0;
  const auto keep = [&i](void* block) {
    CHECK(block != nullptr || errno == ENOMEM);
    blocks[i++] = block;
    errno = 0;
  };
  errno = 0;
  keep(track_malloc(100));
  keep(track_calloc(3, 50));
  keep(track_memalign(64, 200));
  keep(track_aligned_alloc(64, 300));
  keep(track_realloc(nullptr, 400));
  void* block = nullptr;
  const int error = track_posix_memalign(&block, 64, 500);
  CHECK(error == (block != nullptr ? 0 : ENOMEM) && errno == 0);
  errno = error;
  keep(block);
  void* const old = track_calloc(1, 60);
  if (old == nullptr) return;
  void* const moved = track_realloc(old, 6000);
  if (moved == nullptr) track_free(old);  // realloc failed: the old block is still valid
  keep(moved);
}

void StartWithProperties(const char* text) {
  std::ofstream(directory + "properties") << text;
  StartRecording();
}
void StartWithUnwinder() {
  StartWithProperties("vastel.memleak.backtacetype=1\n");
}
void StartWithTargets() {
  StartWithProperties(
      "persist.sys.memleak.hookLib=libend_to_end_mapper.so\n"
      "persist.sys.memleak.hookFunc=mmap,munmap\n");
}
void StartHooked() {
  StartWithTargets();
  Send(0x100);
  CHECK(Logged("set mmaphook to:true"));
}
/// The first hooked calls of this thread. They behave as without hooks.
void CallHooked() {
  void* const mapping = MapOne(65536);
  if (mapping != reinterpret_cast<void*>(-1)) CHECK(UnmapOne(mapping, 65536) == 0);
}
void StartWithBlocks() {
  StartRecording();
  for (std::size_t i = 0; i < 8; ++i) blocks[i] = Allocate(i * 40);
}

/// The tables grow, are cleared and grow again.
void FillTables() {
  for (int round = 0; round < 2; ++round) {
    Send(0x80);
    for (void*& block : blocks) block = Allocate(64);
  }
}
/// The report and the log together account for all blocks.
void CheckTables() {
  CheckBlocks();
  Send(0x40);
  CHECK(Number(Read(report_name), "\nsz 64 \\d+ num (\\d+) ") +
            Number(Read("log"), "no memory to record (\\d+) blocks") ==
        std::size(blocks));
}

/// A fork handler older than the tracker's. It runs while the tracker holds its locks.
void InForkHandler() {
  static void** next = blocks;
  if (!armed) return;
  track_free(*next);
  *next++ = Allocate(64);
}
void StartWithForkHandlers() {
  pthread_atfork(InForkHandler, InForkHandler, InForkHandler);
  StartRecording();
}
void Fork() {
  const pid_t child = fork();
  if (child == 0) {
    void* block = Allocate(100);
    track_free(block);
    _exit(block != nullptr || errno == ENOMEM ? 0 : 1);
  }
  int status = 0;
  CHECK(child < 0 ? errno == ENOMEM : waitpid(child, &status, 0) == child && status == 0);
}

void Freeze() {
  track_malloc_disable();
  for (std::size_t i = 0; i < 400; ++i) {
    track_free(blocks[i]);
    blocks[i] = Allocate(64);
    IsRecorded(blocks[i]);
  }
  track_malloc_enable();
}

void Export() {
  std::uint8_t* info = nullptr;
  std::size_t sizes[4] = {1, 1, 1, 1};
  track_get_malloc_leak_info(&info, &sizes[0], &sizes[1], &sizes[2], &sizes[3]);
  CHECK(info == nullptr && (sizes[0] | sizes[1] | sizes[2] | sizes[3]) == 0);
  answer = track_dump_heap(heap_dump.c_str());
}
void CheckExport() {
  CHECK(answer || Logged("Unable to create file"));
  CHECK(track_dump_heap(heap_dump.c_str()));
  // Intentional: one log line for each mapping.
  const std::regex whole(
      "Android Native Heap Dump v1.1\n\nMAPS\n(Could not open /proc/self/maps\n){5,}END\n");
  CHECK(std::regex_match(Read("heap"), whole));
}

/// The log line at the end of a report, or instead of one.
constexpr char kReported[] =
    "open .*kxlog_exception failed|FAILED TO ALLOC STACKINFO MEMORY!|cannot start MemDumpThread";

void SendCommand();
void CheckCommand();

/// Commands are scenarios too. All kinds share one implementation, so each of their commands is
/// tested for one kind.
constexpr struct Scenario {
  const char* name;
  void (*prepare)();
  void (*run)();  // while memory is short
  void (*check)();
  std::size_t least_size = 0;
  unsigned bit = 0;              // of a command
  const char* logged = nullptr;  // what a command must log
} kScenarios[] = {
    {"start", Nothing, TryStart, CheckStart},
    {"entries", StartRecording, CallEntries, CheckBlocks},
    {"entries_unwinder", StartWithUnwinder, CallEntries, Nothing},
    {"hooked_calls", StartHooked, CallHooked, Nothing},
    {"growth", StartRecording, FillTables, CheckTables, kTableBytes},
    {"fork", StartWithForkHandlers, Fork, CheckBlocks},
    {"malloc_disable", StartRecording, Freeze, CheckBlocks, kTableBytes},
    {"export", StartRecording, Export, CheckExport},
    {"on", StartRecording, SendCommand, CheckCommand, 0, 4, "set hook to:true"},
    {"report", StartWithBlocks, SendCommand, CheckCommand, 0, 6, kReported},
    {"clear", StartRecording, SendCommand, CheckCommand, 0, 7, "native clear"},
    {"hook", StartWithTargets, SendCommand, CheckCommand, 0, 8, "mmaphook to:true| E MemLeak"},
    {"report_hooked", StartHooked, SendCommand, CheckCommand, 0, 10, kReported},
    {"pause_hooked", StartRecording, SendCommand, CheckCommand, 0, 13, "set ionhook to:false"},
    {"fd_on", StartRecording, SendCommand, CheckCommand, 0, 20, "load libfdtrack failed"},
    {"fd_report", StartRecording, SendCommand, CheckCommand, 0, 22, "fail to dump stack"}};
const Scenario* current = nullptr;

void SendCommand() {
  Send(std::uint64_t{1} << current->bit);
}
void CheckCommand() {
  CHECK(Logged(current->logged));
  CHECK(!Logged("plt unhook"));  // unhooking needs no memory
  // With memory again the report is complete.
  Send(0x50);
  const std::string report = Read(report_name);
  CHECK(report.size() > 3 && report.compare(report.size() - 3, 3, "END") == 0);
}

/// Runs the scenario in a child. The n-th request fails.
[[noreturn]] void Run(const Scenario& scenario, long n) {
  alarm(60);
  threads_before = Threads();
  scenario.prepare();
  least_size = scenario.least_size;
  requests_left = n;
  armed = true;
  scenario.run();
  armed = false;
  scenario.check();
  // With memory again. Hooks are removed first: with hooks, stacks start at a hooked caller.
  Send(0x400);
  Send(0x10);
  void* const block = Allocate(777);
  CHECK(IsRecorded(block));
  track_free(block);
  CHECK(!IsRecorded(block));
  _exit(requests_left > 0 ? kNothingRefused : 0);
}

int children = 0;

/// Whether the scenario passes for every n, or above 40 for some n. Prints the first failing n.
bool Holds(const Scenario& scenario) {
  for (const bool all_later : {false, true}) {
    onward = all_later;
    for (long n = 1;; n += n < 40 ? 1 : 7) {
      for (const char* old : {"log", "properties", report_name}) {
        std::remove((directory + old).c_str());
      }
      ++children;
      const pid_t child = fork();
      if (child == 0) Run(scenario, n);
      int status = 0;
      waitpid(child, &status, 0);
      if (WIFEXITED(status) && WEXITSTATUS(status) == kNothingRefused) break;
      if (status == 0) continue;
      std::printf("%s: FAILED with request %ld refused%s: wait status %#x\n", scenario.name, n,
                  all_later ? " and all later" : "", static_cast<unsigned>(status));
      return false;
    }
  }
  return true;
}

}  // namespace

int main(int count, char** arguments) {
  bool all_hold = true;
  for (const Scenario& scenario : kScenarios) {
    current = &scenario;
    bool wanted = count == 1;
    for (int i = 1; i < count; ++i) wanted |= std::strcmp(arguments[i], scenario.name) == 0;
    if (wanted && !Holds(scenario)) all_hold = false;
  }
  std::printf("%d children\n", children);
  return all_hold ? 0 : 1;
}
