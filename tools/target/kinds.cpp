// SPDX-License-Identifier: Apache-2.0
// Names for the hook settings, and the state of hooks from a log.
#include "tools/target/kinds.h"

#include <algorithm>
#include <iomanip>
#include <iterator>
#include <sstream>

#include "protocol/protocol.h"
#include "tools/base/user_error.h"
#include "tools/target/log_tail.h"
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
  std::string value;
  for (const std::string& name : names) value += (value.empty() ? "" : ",") + name;
  if (value.size() > protocol::kMaxPropertyBytes) {
    throw UserError(option + " is too long: " + std::to_string(value.size()) +
                        " bytes, and a property holds " +
                        std::to_string(protocol::kMaxPropertyBytes),
                    "name fewer at a time");
  }
  return value;
}

/// The state of the hooks, from the lines of a log.
class HookLog {
 public:
  void Add(const std::string& line) {
    const std::uint64_t word = ReceivedWord(line);
    if (word != 0) {
      before_ = State();
      word_ = word;
      done_ = 0;
      return;
    }
    for (const Kind& kind : protocol::kKinds) {
      const std::size_t at = line.find(kind.switch_line);
      if (kind.IsNative() || at == std::string::npos) continue;
      const bool on = line.compare(at + std::string_view(kind.switch_line).size(), 4, "true") == 0;
      done_ |= on ? kind.On() : kind.Pause();
    }
  }

  // Carries out the latest word as the tracker does. A stop leaves no line. An "on" that fails
  // leaves no line either, and ends the word.
  std::string State() const {
    std::string state = before_;
    for (const Kind& kind : protocol::kKinds) {
      if (kind.IsNative()) continue;
      if ((done_ & kind.On()) != 0) state = std::string(kind.name) + " on";
      if ((word_ & ~done_ & kind.On()) != 0) break;
      if ((done_ & kind.Pause()) != 0) state = std::string(kind.name) + " paused";
      // Without hooks it was a report during native recording.
      if ((word_ & kind.Report()) != 0 && !state.empty()) {
        state = "recording off (stopped by a report)";
      }
    }
    return state;
  }

 private:
  std::string before_;      // the state before the latest word
  std::uint64_t word_ = 0;  // the latest word
  std::uint64_t done_ = 0;  // its bits that have left a line
};

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

HookNames NamesFor(const Kind& kind, const std::string& libraries, const std::string& functions) {
  if (kind.IsNative()) {
    if (libraries.empty() && functions.empty()) return {};
    throw UserError("--lib and --func are for hooks, and native memory is recorded without hooks",
                    "add --kind " + HookedKindNames());
  }
  const std::string wanted = libraries.empty() ? std::string(kind.library) : libraries;
  if (wanted.empty()) {
    throw UserError(std::string("--kind ") + kind.name + " needs --lib",
                    "name the libraries to hook; memleak libs PID lists them");
  }
  return {ParseNames("--lib", wanted),
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

std::string HooksFromLog(std::string_view log) {
  HookLog hooks;
  std::istringstream lines{std::string(log)};
  for (std::string line; std::getline(lines, line);) hooks.Add(line);
  return hooks.State();
}

}  // namespace memleak
