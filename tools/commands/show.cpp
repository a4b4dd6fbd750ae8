// show: a report for people, or for programs.
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <nlohmann/json.hpp>
#include <string_view>
#include <vector>

#include "tools/base/user_error.h"
#include "tools/commands/commands.h"
#include "tools/commands/input.h"
#include "tools/export/json.h"

namespace memleak {
namespace {

constexpr std::size_t kDefaultTop = 10;

// By the custom of https://no-color.org, an empty variable counts as none.
bool WantsColor() {
  const char* refused = std::getenv("NO_COLOR");
  const char* terminal = std::getenv("TERM");
  return isatty(STDOUT_FILENO) == 1 && (refused == nullptr || *refused == '\0') &&
         terminal != nullptr && std::string_view(terminal) != "dumb";
}

// Native groups first, each kind in the order asked for, at most `top` of each.
std::vector<std::size_t> ChooseGroups(const Profile& profile, const ShowOptions& options) {
  std::vector<std::size_t> chosen;
  Selection selection = options.view.selection;
  for (const GroupKind kind : {GroupKind::kNative, GroupKind::kJava}) {
    selection.kind = kind;
    std::vector<std::size_t> groups = SelectGroups(profile, selection).groups;
    const std::size_t top = options.top.value_or(0);
    if (top != 0 && groups.size() > top) groups.resize(top);
    chosen.insert(chosen.end(), groups.begin(), groups.end());
  }
  return chosen;
}

}  // namespace

int ShowCommand(const ShowOptions& options) {
  SymbolOptions symbols = options.symbols;
  symbols.progress = true;
  if (options.json && options.view.view != View::kGroups) {
    throw UserError("--json holds the groups themselves, whatever --by says",
                    "leave out one of them");
  }
  const Profile profile = OpenProfile(options.report, options.partial, symbols);
  if (options.json) {
    WriteJson(ToJson(profile, ChooseGroups(profile, options)), std::cout);
    return kExitOk;
  }
  ViewOptions view = options.view;
  view.top = options.top.value_or(kDefaultTop);
  view.color = WantsColor();
  PrintProfile(profile, view, std::cout);
  return kExitOk;
}

}  // namespace memleak
