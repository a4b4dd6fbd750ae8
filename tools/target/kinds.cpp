// The table of kinds, and the names that go into the hook settings.
#include "tools/target/kinds.h"

#include <algorithm>
#include <sstream>

#include "tools/base/control.h"
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

/// A log that is read from its start, one command word after another.
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
    for (const KindInfo& info : AllKinds()) {
      const std::size_t at = line.find(info.state_line);
      if (info.kind == Kind::kNative || at == std::string::npos) continue;
      const bool on = line.compare(at + std::string_view(info.state_line).size(), 4, "true") == 0;
      done_ |= on ? info.on : info.pause;
    }
  }

  // Carries the latest word out as the tracker does: kind by kind, each on, pause, stop. Stopping
  // leaves no line, but an "on" that fails leaves its own out and ends the word.
  std::string State() const {
    std::string state = before_;
    for (const KindInfo& info : AllKinds()) {
      if (info.kind == Kind::kNative) continue;
      if ((done_ & info.on) != 0) state = std::string(info.name) + " on";
      if ((word_ & ~done_ & info.on) != 0) break;
      if ((done_ & info.pause) != 0) state = std::string(info.name) + " paused";
      // Where there were never hooks, it was a report that lets native recording go on.
      if ((word_ & info.report) != 0 && !state.empty()) {
        state = "recording off (stopped by a report)";
      }
    }
    return state;
  }

 private:
  std::string before_;      // the state before the latest word
  std::uint64_t word_ = 0;  // the latest word
  std::uint64_t done_ = 0;  // those of its bits that have left a line
};

}  // namespace

const std::vector<KindInfo>& AllKinds() {
  static const std::vector<KindInfo> kinds = {
      {Kind::kNative,
       "native",
       kNativeOn,
       kNativePause,
       kNativeReport,
       kNativeClear,
       "set hook to:",
       "",
       {}},
      {Kind::kMmap,
       "mmap",
       0x100,
       0x200,
       0x400,
       0x800,
       "set mmaphook to:",
       "",
       {"mmap", "mmap64", "munmap", "mremap"}},
      {Kind::kIon,
       "ion",
       0x1000,
       0x2000,
       0x4000,
       0x8000,
       "set ionhook to:",
       "libdmabufheap.so",
       {"ioctl"}},
      {Kind::kGpu,
       "gpu",
       0x10000,
       0x20000,
       0x40000,
       0x80000,
       "set gpuhook to:",
       "libgsl.so",
       {"ioctl"}},
  };
  return kinds;
}

const KindInfo& InfoOf(Kind kind) {
  return AllKinds()[static_cast<std::size_t>(kind)];
}

std::vector<std::string> ParseNames(const std::string& option, std::string_view list) {
  std::vector<std::string> names;
  while (true) {
    const std::size_t comma = list.find(',');
    AddName(option, list.substr(0, comma), &names);
    if (comma == std::string_view::npos) break;
    list.remove_prefix(comma + 1);
  }
  if (names.empty()) {
    throw UserError(option + " names nothing", "give names separated by commas");
  }
  return names;
}

std::string HookProperty(const std::string& option, const std::vector<std::string>& names) {
  std::string value;
  for (const std::string& name : names) value += (value.empty() ? "" : ",") + name;
  if (value.size() > kMaxPropertyBytes) {
    throw UserError(option + " is too long: " + std::to_string(value.size()) +
                        " bytes, and a setting holds " + std::to_string(kMaxPropertyBytes),
                    "name fewer at a time");
  }
  return value;
}

HookNames NamesFor(Kind kind, const std::string& libraries, const std::string& functions) {
  const KindInfo& info = InfoOf(kind);
  const std::string wanted = libraries.empty() ? info.default_library : libraries;
  if (wanted.empty()) {
    throw UserError(std::string("--kind ") + info.name + " needs --lib",
                    "name the libraries to be hooked; memleak libs PID lists them");
  }
  return {ParseNames("--lib", wanted),
          functions.empty() ? info.default_functions : ParseNames("--func", functions)};
}

std::string WithHooks(const std::string& properties, const std::vector<std::string>& libraries,
                      const std::vector<std::string>& functions) {
  const std::string unwind = WithProperty(properties, kTypeProperty, {kUnwindFramePointers});
  const std::string named =
      WithProperty(unwind, kHookLibraryProperty, HookProperty("--lib", libraries));
  return WithProperty(named, kHookFunctionProperty, HookProperty("--func", functions));
}

std::string HooksFromLog(std::string_view log) {
  HookLog hooks;
  std::istringstream lines{std::string(log)};
  for (std::string line; std::getline(lines, line);) hooks.Add(line);
  return hooks.State();
}

}  // namespace memleak
