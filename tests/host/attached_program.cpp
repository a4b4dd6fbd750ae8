// SPDX-License-Identifier: Apache-2.0
// Attaches the loader to itself as a debugger does, and detaches it, many times while threads
// allocate. Compares the recorded bytes with a model that counts live bytes. The program is not
// position-independent.
#include <dlfcn.h>
#include <linux/futex.h>
#include <malloc.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "protocol/attach.h"
#include "tests/host/attached_library.h"
#include "tests/host/loaded_program.h"

namespace {

using protocol::Recipient;
using protocol::State;

// The address of malloc in the program: an entry of its own PLT, since the program is not
// position-independent.
void* (*volatile own_malloc)(size_t);
// The functions of all libraries, in load order.
Allocator allocators[8];
unsigned libraries = 0;
constexpr unsigned kLibraries = 3;  // libraries that the program is linked with

protocol::AttachFunction* attach = nullptr;
std::atomic<State*>* state = nullptr;
const char* reason = nullptr;
std::string root;

template <typename T>
T Find(void* library, const char* name) {
  void* const found = dlsym(library, name);
  CHECK(found != nullptr);
  return reinterpret_cast<T>(found);
}

/// Posts a command as the controller does. Returns its error.
int Post(Recipient recipient, uint64_t word, uint32_t parameter = 0) {
  State& shared = *state->load();
  const uint64_t number = shared.sent;
  protocol::PostedCommand& posted = shared.posted[number % protocol::kMaxPosted];
  posted.recipient = recipient;
  posted.word = word;
  posted.parameter = parameter;
  ++shared.sent;
  ++shared.bell;
  syscall(SYS_futex, &shared.bell, FUTEX_WAKE, 1, nullptr, nullptr, 0);
  if (shared.control_thread != protocol::ControlThread::kRunning) kill(getpid(), 44);
  for (int i = 0; shared.done <= number; ++i) {
    CHECK(i < 100'000);
    usleep(100);
    // An allocation starts the control thread.
    if (shared.control_thread != protocol::ControlThread::kRunning) free(own_malloc(1));
  }
  return posted.error;
}

void Attach() {
  const int error = attach(root.c_str(), "", "");
  if (error != 0) fprintf(stderr, "%s\n", reason);
  CHECK(error == 0 && state->load()->form == protocol::Form::kAttached);
}

void Detach() {
  CHECK(Post(Recipient::kDetach, 0) == 0);
  CHECK(state->load()->form == protocol::Form::kDetached);
}

/// Takes a report. Returns the live bytes in its profile.
size_t LiveBytes() {
  State& shared = *state->load();
  CHECK(Post(Recipient::kTracker, protocol::kReportKeepRecording) == 0);
  while (shared.reports_ended != shared.reports_started) usleep(1000);
  CHECK(shared.report_error == 0);
  std::ifstream profile(root + protocol::kProfilePath);
  size_t bytes = 0;
  for (std::string word; profile >> word; profile.ignore(1 << 20, '\n')) {
    size_t live;
    if (word == "s" && profile >> live) bytes += live;
  }
  return bytes;
}

/// Returns the lines of mapped files in /proc/self/maps, except the loader and the tracker, which
/// stay mapped.
std::set<std::string> Mappings() {
  std::set<std::string> lines;
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) {
    if (line.find('/') != line.npos && line.find("memleak") == line.npos) lines.insert(line);
  }
  return lines;
}

/// Allocates and frees at random through all libraries.
class Churner {
 public:
  explicit Churner(unsigned seed) : random_(seed), thread_([this] { Run(); }) {}

  void Join() {
    stop_ = true;
    thread_.join();
  }
  void Pause(bool pause) {
    pause_ = pause;
    while (paused_ != pause) usleep(100);
  }
  /// Starts to count live bytes of blocks that are allocated from now on. Call it while paused.
  void StartCount() {
    for (Block& block : blocks_) block.counts = false;
  }
  size_t Count() const {
    size_t bytes = 0;
    for (const Block& block : blocks_) bytes += block.counts ? block.size : 0;
    return bytes;
  }

 private:
  struct Block {
    void* address = nullptr;
    Way way = Way::kMalloc;
    size_t size = 0;
    bool counts = false;
  };

  void Run() {
    for (unsigned i = 0; !stop_; ++i) {
      if (pause_) {
        paused_ = true;
        usleep(100);
        continue;
      }
      paused_ = false;
      Step();
    }
  }

  void Step() {
    Block& block = blocks_[random_() % std::size(blocks_)];
    const size_t size = random_() % 2000 + 1;
    // One library may free a block that another one has allocated.
    const Allocator& allocator = allocators[random_() % kLibraries];
    if (block.address != nullptr && block.way == Way::kMalloc && random_() % 2 == 0) {
      block.address = allocator.resize(block.address, size);
    } else {
      if (block.address != nullptr) allocator.release(block.way, block.address);
      block.way = static_cast<Way>(random_() % static_cast<unsigned>(Way::kCount));
      block.address = allocator.allocate(block.way, size);
    }
    CHECK(block.address != nullptr && malloc_usable_size(block.address) >= size);
    block.size = size;
    block.counts = true;
  }

  std::minstd_rand random_;
  Block blocks_[200];
  std::atomic<bool> stop_{false};
  std::atomic<bool> pause_{false};
  std::atomic<bool> paused_{false};
  std::thread thread_;
};

/// Checks that the recorded bytes equal the model's.
void Compare(std::vector<std::unique_ptr<Churner>>& churners) {
  for (auto& churner : churners) churner->Pause(true);
  CHECK(Post(Recipient::kTracker, protocol::kNative.On() | protocol::kNative.Clear()) == 0);
  const size_t before = LiveBytes();
  for (auto& churner : churners) {
    churner->StartCount();
    churner->Pause(false);
  }
  usleep(100'000);
  size_t expected = before;
  for (auto& churner : churners) {
    churner->Pause(true);
    expected += churner->Count();
  }
  const size_t after = LiveBytes();
  if (after != expected) fprintf(stderr, "%zu recorded, %zu expected\n", after, expected);
  CHECK(after == expected);
  for (auto& churner : churners) churner->Pause(false);
}

/// Checks that a block of the library that was loaded last is recorded and removed.
void CheckLatestLibrary() {
  const Allocator& latest = allocators[--libraries];
  // Large, because the thread that writes the report is recorded as well.
  constexpr size_t kBytes = 1 << 20;
  const size_t before = LiveBytes();
  CHECK(before < kBytes);
  void* const block = latest.allocate(Way::kNew, kBytes);
  CHECK(LiveBytes() >= kBytes);
  latest.release(Way::kNew, block);
  CHECK(LiveBytes() < kBytes);
}

/// Checks that the allocations of a library are recorded once dlopen has returned.
void LoadLibraries() {
  void* const plugin = dlopen(PLUGIN, RTLD_NOW);
  CHECK(plugin != nullptr);
  CheckLatestLibrary();
  CHECK(dlclose(plugin) == 0);
  // Only the first library's search path (DT_RUNPATH) contains this library.
  CHECK(dlopen(HIDDEN_NAME, RTLD_NOW) == nullptr);
  void* const hidden = allocators[kLibraries - 1].open(HIDDEN_NAME);
  CHECK(hidden != nullptr && dlsym(hidden, "attached_copied") != nullptr);
  CheckLatestLibrary();
  CHECK(dlclose(hidden) == 0);
}

int Run(int rounds) {
  own_malloc = malloc;
  CHECK(libraries == kLibraries);
  const std::set<std::string> mappings = Mappings();
  const Pointers original = attached_copied;
  void* const loader = dlopen(LOADER, RTLD_NOW | RTLD_LOCAL);
  CHECK(loader != nullptr);
  attach = Find<protocol::AttachFunction*>(loader, protocol::kAttachFunction);
  state = Find<std::atomic<State*>*>(loader, protocol::kStateVariable);
  reason = Find<const char*>(loader, protocol::kAttachReason);
  CHECK(attach("relative", "", "") != 0 && strlen(reason) > 10);
  std::vector<std::unique_ptr<Churner>> churners;
  for (unsigned i = 0; i < 3; ++i) churners.push_back(std::make_unique<Churner>(i));
  for (int round = 1; round <= rounds; ++round) {
    Attach();
    CHECK(attached_copied.give != original.give);
    if (round % 3 == 0) CHECK(Post(Recipient::kTracker, protocol::kNative.On()) == 0);
    if (round % (rounds / 10) == 0) Compare(churners);
    Detach();
    CHECK(attached_copied.take == original.take && attached_copied.give == original.give);
  }
  Attach();
  Compare(churners);
  for (auto& churner : churners) churner->Pause(true);
  LoadLibraries();
  for (auto& churner : churners) churner->Pause(false);
  Detach();
  for (auto& churner : churners) churner->Join();
  const std::set<std::string> now = Mappings();
  for (const std::string& line : mappings) {
    if (now.count(line) == 0) fprintf(stderr, "before: %s\n", line.c_str());
    CHECK(now.count(line) == 1);
  }
  // The program exits while recording is on.
  Attach();
  return Post(Recipient::kTracker, protocol::kNative.On());
}

}  // namespace

void attached_register(const Allocator& allocator) {
  allocators[libraries++] = allocator;
}

int main(int, char** arguments) {
  root = arguments[1];
  return Run(atoi(arguments[2]));
}
