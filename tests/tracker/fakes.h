// Stand-ins for everything around the entries: the C library's allocator, the record store, the
// capture and the logger. All of them write into one list of events, so that order can be checked.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "private/bionic_malloc_dispatch.h"

namespace fake {

/// What the stand-ins do; Reset puts the defaults back and forgets events and log lines.
struct Behaviour {
  bool allocation_fails = false;
  bool store_initialize_fails = false;
  std::uint32_t backtrace_size = 10;
  char backtrace_type = '0';
  std::function<void()> in_add;     ///< runs inside PointerData::Add
  std::function<void()> in_report;  ///< runs inside DumpAllocationTracesToFile, on its thread
};
Behaviour& Now();
void Reset();

/// Blocks by name in events: what allocators return, and one that existed before.
extern char new_block[64];
extern char old_block[64];

/// Events since the last call, separated by blanks; "*" follows one that happened while its thread
/// was marked.
std::string TakeEvents();
/// Log lines since the last call, as "priority tag text".
std::vector<std::string> TakeLog();

const MallocDispatch& Dispatch();
extern std::uint32_t zygote_flag;
/// The flag as the C library hands it in.
bool* ZygoteFlag();

}  // namespace fake
