// What could be hooked in a process, and what is: judged from outside, by files, maps and the
// contents of slots, before and after the tracker is told to.
//
// Called by `on` and `libs`. Single-threaded.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/base/user_error.h"
#include "tools/target/kinds.h"
#include "tools/target/loaded_libraries.h"

namespace memleak {

/// The functions that the tracker has a proxy for, in the order in which they are listed.
const std::vector<std::string>& HookableFunctions();

/// Whether the tracker has a proxy for `function` in a library of this name: the mapping functions
/// in all, ioctl in two alone.
bool HasProxy(const std::string& function, const std::string& library);

/// How a library calls a function.
enum class ImportState : std::uint8_t {
  kNone,        ///< does not import it
  kNoSlot,      ///< holds its address only, no jump slot
  kSeveral,     ///< has more than one jump slot for it: the tracker takes exactly one
  kUnresolved,  ///< has a jump slot that is filled at the first call
  kReady,       ///< can be hooked; also where the slot's content cannot be read
  kHooked,      ///< the slot leads to made-up code: hooked, by the tracker or by somebody else
};

/// How `library`, one of `loaded`, calls `function`. Without a readable file: kReady.
ImportState ImportStateOf(const LoadedLibraries& loaded, const LoadedLibrary& library,
                          const std::string& function, const ProcessMemory& memory);

/// What a person asked to be hooked.
struct HookRequest {
  std::vector<std::string> libraries;
  std::vector<std::string> functions;
  bool functions_given =
      false;  ///< otherwise it is no fault if a library imports some of them only
};

/// A function in a library.
struct HookPair {
  std::string library;
  std::string function;
};

/// What of a request can be done.
struct HookPlan {
  std::vector<HookPair> pairs;
  std::vector<std::string> libraries;  ///< of the pairs, each once, in the order asked for
  std::vector<std::string> functions;
  std::vector<UserError> problems;  ///< why the rest cannot be
};

/// Compares `request` with the libraries of `process`. A library may be named by its file too; the
/// plan has the name it was loaded by.
HookPlan PlanHooks(const ProcessInfo& process, const LoadedLibraries& loaded,
                   const HookRequest& request, const ProcessMemory& memory);

/// All pairs in `process` with a slot that leads to a hook of the tracker; none where `memory`
/// cannot be read. Throws UserError when the process is gone.
std::vector<HookPair> AllHookedPairs(const ProcessInfo& process, const ProcessMemory& memory);

/// The pairs of `plan` whose slots lead to a hook by now; none where `memory` cannot be read.
std::vector<HookPair> HookedPairs(const ProcessInfo& process, const HookPlan& plan,
                                  const ProcessMemory& memory);

}  // namespace memleak
