// Stand-ins for the hook engine and the properties. Events go to the list of fakes.h.
#pragma once

#include <set>
#include <string>

namespace fake {

/// The two hook properties; empty ones are unset.
struct HookSetup {
  std::string libraries;
  std::string functions;
  bool initialize_fails = false;
  std::set<std::string> refused;  ///< functions that cannot be hooked or unhooked
  void* previous = nullptr;       ///< what every hooked call stands in for
};
HookSetup& Hooks();

}  // namespace fake
