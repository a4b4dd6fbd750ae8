// Stands in for libmemleak_tracker.so: forwards to the table it is given, notes what it is called
// with, and answers command bit 0x40 with a small report.
#include "tests/host/fake_tracker.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "tests/control_signal.h"

namespace {

FakeTracker state;
struct sigaction saved_action;

void WriteReport() {
  const char* root = getenv("MEMLEAK_TRACKER_ROOT");
  if (root == nullptr) return;
  std::string path = root;
  const size_t percent = path.find("%p");
  if (percent != std::string::npos) path.replace(percent, 2, std::to_string(getpid()));
  path += "/data/log/reliability/allocations_dump";
  for (size_t at = path.find('/', 1); at != std::string::npos; at = path.find('/', at + 1)) {
    mkdir(path.substr(0, at).c_str(), 0755);
  }
  FILE* file = fopen(path.c_str(), "we");
  if (file == nullptr) return;
  // In two steps, so that a reader who does not wait for the end is caught.
  fputs("Native Heap ", file);
  fflush(file);
  usleep(20000);
  fputs("END", file);
  fclose(file);
}

void OnCommand(int, siginfo_t* info, void*) {
  const ControlWords words = ReadControlWords(info);
  char name[16] = "";
  prctl(PR_GET_NAME, name, 0, 0, 0);
  if (strcmp(name, "memleak-control") != 0) ++state.elsewhere;
  if ((words.word & 0x40) != 0) WriteReport();
  ++state.commands;
}

/// Of the main thread alone: what the tests ask about, whatever the control thread does meanwhile.
void Note(const char* entry, const void* caller) {
  if (syscall(SYS_gettid) != getpid()) return;
  state.last_entry.store(entry, std::memory_order_relaxed);
  state.last_caller.store(caller, std::memory_order_relaxed);
}

}  // namespace

#define FORWARD(result, name, parameters, arguments) \
  result track_##name parameters {                   \
    Note(#name, __builtin_return_address(0));        \
    return state.next->name arguments;               \
  }

extern "C" {

FakeTracker* fake_tracker_state() {
  return &state;
}

bool track_initialize(const MallocDispatch* table, bool* zygote_child, const char* options) {
  uint32_t flag;
  memcpy(&flag, zygote_child, sizeof flag);
  if (flag != 0 || options == nullptr || reinterpret_cast<uintptr_t>(table) % 32 != 0) return false;
  state.next = table;
  struct sigaction action = {};
  action.sa_sigaction = OnCommand;
  action.sa_flags = SA_SIGINFO;
  return sigaction(44, &action, &saved_action) == 0;
}
void track_finalize() {
  sigaction(44, &saved_action, nullptr);
}
FORWARD(void*, malloc, (size_t n), (n))
FORWARD(void, free, (void* p), (p))
FORWARD(void*, calloc, (size_t count, size_t n), (count, n))
FORWARD(void*, realloc, (void* p, size_t n), (p, n))
FORWARD(void*, memalign, (size_t alignment, size_t n), (alignment, n))
FORWARD(void*, aligned_alloc, (size_t alignment, size_t n), (alignment, n))
FORWARD(int, posix_memalign, (void** p, size_t alignment, size_t n), (p, alignment, n))
FORWARD(size_t, malloc_usable_size, (const void* p), (p))
FORWARD(struct mallinfo, mallinfo, (), ())
FORWARD(int, mallopt, (int parameter, int value), (parameter, value))
FORWARD(int, malloc_info, (int options, FILE* stream), (options, stream))
FORWARD(int, malloc_iterate,
        (uintptr_t base, size_t n, void (*call)(uintptr_t, size_t, void*), void* argument),
        (base, n, call, argument))
FORWARD(void, malloc_disable, (), ())
FORWARD(void, malloc_enable, (), ())
}
