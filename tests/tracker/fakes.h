// Stand-ins for everything around the tracker: the C library's allocator, the record store, the
// capture, the hook engine, the properties and the logger. All of them write into one list of
// events, so that order can be checked.
#pragma once

#include <functional>
#include <set>
#include <string>
#include <vector>

#include "private/bionic_malloc_dispatch.h"

namespace fake {

/// What the stand-ins do; Reset puts the defaults back and forgets events and log lines.
struct Behaviour {
  std::uint32_t backtrace_size = 10;
  char backtrace_type = '0';
  std::function<void()> in_add;  ///< runs inside PointerData::Add
};
Behaviour& Now();
void Reset();

/// The two hook properties (empty ones are unset) and what the hook engine does.
struct HookSetup {
  std::string libraries;
  std::string functions;
  bool initialize_fails = false;
  std::set<std::string> refused;  ///< functions that cannot be hooked or unhooked
  void* previous = nullptr;       ///< what every hooked call stands in for
};
HookSetup& Hooks();

/// Runs `action` inside DumpAllocationTracesToFile, on its thread, which may be under way.
void OnReport(std::function<void()> action);

/// Blocks by name in events: what allocators return, and one that existed before.
extern char new_block[64];
extern char old_block[64];

/// Events since the last call, separated by blanks; "*" follows one that happened while its thread
/// was marked.
std::string TakeEvents();
/// Log lines since the last call: "I " or "E " by priority and the text; "?" under a wrong tag.
std::vector<std::string> TakeLog();

const MallocDispatch& Dispatch();
/// The zygote-child flag as the C library hands it in.
bool* ZygoteFlag();

}  // namespace fake
