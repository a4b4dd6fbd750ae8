// SPDX-License-Identifier: Apache-2.0
// Fuzz target: reads a report or a profile, which may come from another machine, and prints it. One
// thread.
//
// A text that does not start like one is refused with one line.
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <string_view>

#include "tests/fuzz/support.h"
#include "tools/base/user_error.h"
#include "tools/export/json.h"
#include "tools/report/load.h"
#include "tools/report/model.h"
#include "tools/view/print.h"

namespace {

/// Prints the profile in every way. Libraries that it names are opened if they exist on this
/// machine.
void Print(const memleak::Profile& profile) {
  using memleak::View;
  for (const View view :
       {View::kGroups, View::kLibraries, View::kFunctions, View::kTree, View::kCallers}) {
    std::ostringstream out;
    memleak::PrintProfile(profile, {.view = view, .top = 0, .selection = {}, .color = true}, out);
    fuzz::Require(!out.str().empty(), "something is printed");
  }
  std::ostringstream document;
  memleak::WriteProfileJson(profile, document);
  fuzz::Require(nlohmann::json::accept(document.str()), "the document is JSON");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const fuzz::MemoryFile file;
  constexpr std::string_view kFirstLine = "Native Heap MemLeak Tracker Version 2.0:\n";
  file.Write(data, size);
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const bool begins_well = text.starts_with(kFirstLine) || text.starts_with("memleak profile 1\n");
  try {
    const memleak::Profile profile = memleak::LoadProfile(file.Path(), {});
    fuzz::Require(begins_well, "only a report is read as one");
    Print(profile);
  } catch (const memleak::UserError& error) {
    const std::string_view line = error.what();
    fuzz::Require(!begins_well && !line.empty() && line.find('\n') == line.npos,
                  "what is no report is refused in one line");
  }
  return 0;
}
