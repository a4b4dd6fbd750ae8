// SPDX-License-Identifier: Apache-2.0
#include "tools/target/kinds.h"

#include <algorithm>
#include <iomanip>
#include <iterator>
#include <sstream>

#include "protocol/protocol.h"
#include "tools/base/names.h"
#include "tools/base/user_error.h"
#include "tools/target/root_directory.h"

namespace memleak {
namespace {

constexpr std::string_view kBlanks = " \t";

std::string_view Strip(std::string_view text) {
  const std::size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) + 1 - first);
}

void AddName(const std::string& option, std::string_view piece, std::vector<std::string>* names) {
  std::string_view name = Strip(piece);
  name = name.substr(name.rfind('/') + 1);
  if (name.empty()) return;
  const bool plain = std::none_of(name.begin(), name.end(), [](char c) {
    return static_cast<unsigned char>(c) < ' ' || c == '\x7f';
  });
  if (!plain) {
    throw UserError(option + " has a name with control characters in it",
                    "give names separated by commas, such as libfoo.so,libbar.so");
  }
  if (std::find(names->begin(), names->end(), name) == names->end()) names->emplace_back(name);
}

// `names` as the value of a property. Throws UserError if it is too long.
std::string HookProperty(const std::string& option, const std::vector<std::string>& names) {
  std::string value = Joined(names, ",");
  if (value.size() > protocol::kMaxPropertyBytes) {
    throw UserError(option + " is too long: " + std::to_string(value.size()) +
                        " bytes, and a property holds " +
                        std::to_string(protocol::kMaxPropertyBytes),
                    "name fewer at a time");
  }
  return value;
}

}  // namespace

std::string HookedKindNames() {
  std::string names;
  for (const Kind& kind : protocol::kKinds) {
    if (kind.IsNative()) continue;
    const bool last = &kind + 1 == std::end(protocol::kKinds);
    names += std::string(names.empty() ? "" : last ? " or " : ", ") + kind.name;
  }
  return names;
}

std::vector<std::string> FunctionsOf(const Kind& kind) {
  return kind.functions.empty() ? std::vector<std::string>() : ParseNames("", kind.functions);
}

std::string HelpOnHookedKinds() {
  std::ostringstream text;
  for (const Kind& kind : protocol::kKinds) {
    if (kind.IsNative()) continue;
    text << "  " << std::left << std::setw(8) << kind.name << kind.what << "\n"
         << std::string(10, ' ') << kind.functions << " in "
         << (kind.library.empty() ? "the libraries of --lib" : kind.library) << "\n";
  }
  return text.str();
}

std::vector<std::string> ParseNames(const std::string& option, std::string_view list) {
  std::vector<std::string> names;
  while (true) {
    const std::size_t comma = list.find(protocol::kNameSeparator);
    AddName(option, list.substr(0, comma), &names);
    if (comma == std::string_view::npos) break;
    list.remove_prefix(comma + 1);
  }
  if (names.empty()) {
    throw UserError(option + " names nothing", "give names separated by commas");
  }
  return names;
}

HookNames NamesFor(const RecordingOptions& options) {
  const Kind& kind = *options.kind;
  const std::string& functions = options.functions;
  if (kind.IsNative()) {
    if (options.libraries.empty() && functions.empty()) return {};
    throw UserError("--lib and --func are for hooks, and native memory is recorded without hooks",
                    "add --kind " + HookedKindNames());
  }
  const std::string libraries =
      options.libraries.empty() ? std::string(kind.library) : options.libraries;
  if (libraries.empty()) {
    throw UserError(std::string("--kind ") + kind.name + " needs --lib",
                    "name the libraries to hook; memleak libs PID lists them");
  }
  return {ParseNames("--lib", libraries),
          ParseNames("--func", functions.empty() ? kind.defaults : functions)};
}

std::string WithHooks(const std::string& properties, const HookNames& names) {
  const std::string unwind =
      WithProperty(properties, protocol::kTypeProperty, {protocol::kUnwindFramePointers});
  const std::string libraries =
      WithProperty(unwind, protocol::kHookLibraryProperty, HookProperty("--lib", names.libraries));
  return WithProperty(libraries, protocol::kHookFunctionProperty,
                      HookProperty("--func", names.functions));
}

}  // namespace memleak
