// SPDX-License-Identifier: Apache-2.0
// Prints hooked functions.
#include "tools/view/hooked_pairs.h"

#include <iostream>
#include <string>

#include "tools/base/format.h"
#include "tools/base/user_error.h"

namespace memleak {

void PrintPairs(const char* what, const std::vector<HookPair>& pairs, std::ostream& out) {
  std::string library;
  for (const HookPair& pair : pairs) {
    if (pair.library == library) {
      out << ", " << pair.function;
      continue;
    }
    if (!library.empty()) out << "\n";
    library = pair.library;
    out << what << FitWidth(library, 80) << ": " << pair.function;
  }
  if (!library.empty()) out << "\n";
}

void PrintStillHooked(const ProcessInfo& process) {
  const ProcessMemory memory(process.pid);
  if (!memory.IsOpen()) return;
  std::vector<HookPair> left;
  try {
    left = AllHookedPairs(process, memory);
  } catch (const UserError&) {
    return;  // the process has ended
  }
  if (left.empty()) return;
  PrintPairs("hooked  ", left, std::cout);
  std::cout
      << "        These hooks record nothing. Each `on` adds a hook; a report removes one, in\n"
         "        the libraries that the latest `on` has named.\n";
}

}  // namespace memleak
