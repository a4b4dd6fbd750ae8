// SPDX-License-Identifier: Apache-2.0
// What can be hooked in a process, according to files, maps and the contents of slots.
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

/// The functions of all kinds, each once.
const std::vector<std::string>& HookableFunctions();

/// Whether some kind hooks `function` in `library`.
bool HasProxy(const std::string& function, const std::string& library);

/// How a library calls a function.
enum class ImportState : std::uint8_t {
  kNone,        ///< does not import it
  kReady,       ///< can be hooked, or the slot cannot be read
  kHooked,      ///< the slot leads to generated code: hooked, by the tracker or by another tool
  kUnresolved,  ///< has a jump slot that the first call resolves
  kNoSlot,      ///< holds its address only, no jump slot
  kSeveral,     ///< has several jump slots for it, and the tracker requires exactly one
};

/// How `library`, one of `loaded`, calls `function`. Without a readable file: kReady.
ImportState ImportStateOf(const LoadedLibraries& loaded, const LoadedLibrary& library,
                          const std::string& function, const ProcessMemory& memory);

/// A function in a library.
struct HookPair {
  std::string library;
  std::string function;
  bool operator==(const HookPair&) const = default;
};

/// Whether the slot of `pair`, whose library is one of `loaded`, leads to generated code. `memory`
/// is open.
bool IsHooked(const LoadedLibraries& loaded, const HookPair& pair, const ProcessMemory& memory);

/// What a user wants to hook.
struct HookRequest {
  std::vector<std::string> libraries;
  std::vector<std::string> functions;
  bool functions_given = false;  ///< whether a library must import all of them
};

/// The part of a request that is possible.
struct HookPlan {
  std::vector<HookPair> pairs;
  std::vector<std::string> libraries;  ///< of the pairs, each once, in the order of the request
  std::vector<std::string> functions;
  std::vector<UserError> problems;  ///< why the rest is not possible
};

/// Compares `request` with the libraries of `process`. A request may also name a library by its
/// file; the plan has the name that it was loaded by.
HookPlan PlanHooks(const ProcessInfo& process, const LoadedLibraries& loaded,
                   const HookRequest& request, const ProcessMemory& memory);

}  // namespace memleak
