// delivered_library LIBRARY DIRECTORY: the library as it is delivered runs out of memory in the
// middle of a report. Its exceptions come from its own copy of the C++ run-time library; the next
// report is whole. The settings in the environment put log and report into DIRECTORY.
#include <dlfcn.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

#include "private/bionic_malloc_dispatch.h"
#include "tests/control_signal.h"

namespace {

/// The size of one piece of a report's text, which nothing else asks for.
constexpr std::size_t kPieceBytes = 65536;
std::atomic<bool> g_refuses_pieces{false};

bool Contains(const std::string& path, const std::string& text) {
  for (int tries = 0; tries < 1000; ++tries, usleep(10000)) {
    std::ifstream file(path);
    const std::string content{std::istreambuf_iterator<char>(file), {}};
    if (content.find(text) != std::string::npos) return true;
  }
  std::fprintf(stderr, "%s: no \"%s\"\n", path.c_str(), text.c_str());
  return false;
}

}  // namespace

extern "C" void* __libc_malloc(std::size_t size);
// The library's allocator, and everybody's.
extern "C" void* malloc(std::size_t size) {
  return g_refuses_pieces && size == kPieceBytes ? nullptr : __libc_malloc(size);
}

int main(int /*count*/, char** arguments) {
  static MallocDispatch table = {};
  table.malloc = malloc;
  table.free = free;
  table.malloc_usable_size = [](const void*) -> std::size_t { return 100; };
  static bool zygote_child = false;
  const std::string directory = arguments[2];
  const std::string report = directory + "/data/log/reliability/allocations_dump";
  for (const std::string& old : {directory + "/log", report}) std::remove(old.c_str());
  void* const library = dlopen(arguments[1], RTLD_NOW);
  if (library == nullptr) return 2;
  const auto initialize = reinterpret_cast<bool (*)(const MallocDispatch*, bool*, const char*)>(
      dlsym(library, "track_initialize"));
  const auto allocate = reinterpret_cast<void* (*)(std::size_t)>(dlsym(library, "track_malloc"));
  if (!initialize(&table, &zygote_child, "")) return 2;
  SendControlSignal(getpid(), 0x10);
  if (allocate(100) == nullptr) return 2;

  g_refuses_pieces = true;
  SendControlSignal(getpid(), 0x40);
  if (!Contains(directory + "/log", "FAILED TO ALLOC STACKINFO MEMORY!")) return 1;
  g_refuses_pieces = false;
  SendControlSignal(getpid(), 0x40);
  return Contains(report, "sz 100 100 num 1") && Contains(report, "==\nEND") ? 0 : 1;
}
