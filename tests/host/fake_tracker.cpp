// Stands in for libmemleak_tracker.so: forwards to the table it is given, notes what it is called
// with, and answers command bit 0x40 with a small report.
#include "tests/host/fake_tracker.h"

#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <string>

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
  uint64_t word;
  uint32_t parameter;
  memcpy(&word, reinterpret_cast<char*>(info) + 16, sizeof word);
  memcpy(&parameter, reinterpret_cast<char*>(info) + 24, sizeof parameter);
  char name[16] = "";
  prctl(PR_GET_NAME, name, 0, 0, 0);
  if (strcmp(name, "memleak-control") != 0) ++state.elsewhere;
  state.words += word;
  state.parameter = parameter;
  if ((word & 0x40) != 0) WriteReport();
  ++state.commands;
}

/// Of the main thread alone: what the tests ask about, whatever the control thread does meanwhile.
void Note(const char* entry, const void* caller) {
  if (syscall(SYS_gettid) != getpid()) return;
  state.last_entry.store(entry, std::memory_order_relaxed);
  state.last_caller.store(caller, std::memory_order_relaxed);
}

}  // namespace

#define NOTE(name) Note(name, __builtin_return_address(0))

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
void* track_malloc(size_t n) {
  NOTE("malloc");
  return state.next->malloc(n);
}
void track_free(void* p) {
  NOTE("free");
  state.next->free(p);
}
void* track_calloc(size_t count, size_t n) {
  NOTE("calloc");
  return state.next->calloc(count, n);
}
void* track_realloc(void* p, size_t n) {
  NOTE("realloc");
  return state.next->realloc(p, n);
}
void* track_memalign(size_t alignment, size_t n) {
  NOTE("memalign");
  return state.next->memalign(alignment, n);
}
void* track_aligned_alloc(size_t alignment, size_t n) {
  NOTE("aligned_alloc");
  return state.next->aligned_alloc(alignment, n);
}
int track_posix_memalign(void** p, size_t alignment, size_t n) {
  NOTE("posix_memalign");
  return state.next->posix_memalign(p, alignment, n);
}
size_t track_malloc_usable_size(const void* p) {
  NOTE("malloc_usable_size");
  return state.next->malloc_usable_size(p);
}
struct mallinfo track_mallinfo() {
  NOTE("mallinfo");
  return state.next->mallinfo();
}
int track_mallopt(int parameter, int value) {
  NOTE("mallopt");
  return state.next->mallopt(parameter, value);
}
int track_malloc_info(int options, FILE* stream) {
  NOTE("malloc_info");
  return state.next->malloc_info(options, stream);
}
int track_malloc_iterate(uintptr_t base, size_t n, void (*call)(uintptr_t, size_t, void*),
                         void* arg) {
  return state.next->malloc_iterate(base, n, call, arg);
}
void track_malloc_disable() {
  state.next->malloc_disable();
}
void track_malloc_enable() {
  state.next->malloc_enable();
}
}
