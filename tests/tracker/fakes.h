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
  std::function<void()> in_add;  ///< runs inside PointerData::Add
};
Behaviour& Now();
void Reset();
/// Runs `action` inside DumpAllocationTracesToFile, on its thread, which may be under way.
void OnReport(std::function<void()> action);

/// Blocks by name in events: what allocators return, and one that existed before.
extern char new_block[64];
extern char old_block[64];

/// Events since the last call, separated by blanks; "*" follows one that happened while its thread
/// was marked.
std::string TakeEvents();
/// Adds an event of another stand-in.
void AddEvent(const std::string& text);
/// Log lines since the last call: "I " or "E " by priority and the text; "?" under a wrong tag.
std::vector<std::string> TakeLog();

const MallocDispatch& Dispatch();
/// The zygote-child flag as the C library hands it in.
bool* ZygoteFlag();

}  // namespace fake
