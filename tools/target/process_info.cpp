// Parsers of /proc files.
#include "tools/target/process_info.h"

#include <algorithm>
#include <array>
#include <charconv>

#include "protocol/protocol.h"
#include "tools/base/files.h"
#include "tools/base/names.h"

namespace memleak {
namespace {

constexpr std::string_view kEmulatorPrefix = "qemu-";
// Calls `visit` for every line of `text` until it returns false.
template <typename Visitor>
void ForEachLine(std::string_view text, char separator, Visitor visit) {
  while (!text.empty()) {
    const std::size_t end = text.find(separator);
    if (!visit(text.substr(0, end)) || end == std::string_view::npos) return;
    text.remove_prefix(end + 1);
  }
}

}  // namespace

std::string_view StatusField(std::string_view status, std::string_view name) {
  std::string_view value;
  ForEachLine(status, '\n', [&](std::string_view line) {
    if (!line.starts_with(name) || line.substr(name.size(), 1) != ":") return true;
    line.remove_prefix(name.size() + 1);
    const std::size_t start = line.find_first_not_of(" \t");
    value = start == std::string_view::npos ? std::string_view() : line.substr(start);
    return false;
  });
  return value;
}

bool CatchesSignal(std::string_view status, int signal) {
  const std::string_view mask = StatusField(status, "SigCgt");
  std::uint64_t bits = 0;
  const auto result = std::from_chars(mask.data(), mask.data() + mask.size(), bits, 16);
  return result.ec == std::errc() && ((bits >> (signal - 1)) & 1) != 0;
}

bool IsZombie(std::string_view status) {
  const std::string_view state = StatusField(status, "State");
  return state.starts_with('Z') || state.starts_with('X');
}

bool MapsLibrary(std::string_view maps, std::string_view library) {
  // A library that was replaced on disk is still mapped.
  constexpr std::string_view kDeleted = " (deleted)";
  bool found = false;
  ForEachLine(maps, '\n', [&](std::string_view line) {
    if (line.ends_with(kDeleted)) line.remove_suffix(kDeleted.size());
    const std::size_t slash = line.rfind('/');
    found = slash != std::string_view::npos && line.substr(slash + 1) == library;
    return !found;
  });
  return found;
}

std::map<std::string, std::string> ParseEnvironment(std::string_view environ_text) {
  std::map<std::string, std::string> environment;
  ForEachLine(environ_text, '\0', [&](std::string_view entry) {
    const std::size_t equals = entry.find('=');
    if (equals != std::string_view::npos) {
      environment.emplace(entry.substr(0, equals), entry.substr(equals + 1));
    }
    return true;
  });
  return environment;
}

std::optional<std::uint64_t> StartTicks(std::string_view stat) {
  // The second field, the name, may hold blanks and parentheses. The start time is the 20th after
  // it.
  constexpr int kFieldsBefore = 19;
  const std::size_t name_end = stat.rfind(") ");
  if (name_end == std::string_view::npos) return std::nullopt;
  std::optional<std::uint64_t> ticks;
  int field = 0;
  ForEachLine(stat.substr(name_end + 2), ' ', [&](std::string_view text) {
    if (field++ < kFieldsBefore) return true;
    std::uint64_t value = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
    if (result.ec == std::errc()) ticks = value;
    return false;
  });
  return ticks;
}

std::string GuestName(std::string_view cmdline) {
  constexpr std::array<std::string_view, 17> kWithValue = {
      "-g", "-L", "-s", "-E", "-U",   "-0",    "-r",      "-B",      "-R",
      "-D", "-d", "-p", "-t", "-cpu", "-seed", "-plugin", "-dfilter"};
  std::string name;
  bool skip = true;  // the emulator itself
  ForEachLine(cmdline, '\0', [&](std::string_view word) {
    if (skip) {
      skip = false;
      return true;
    }
    if (!word.starts_with('-')) {
      name = word.substr(word.rfind('/') + 1);
      return false;
    }
    skip = std::find(kWithValue.begin(), kWithValue.end(), word) != kWithValue.end();
    return true;
  });
  return name;
}

std::string ExpandPid(std::string_view text, pid_t pid) {
  std::string expanded;
  protocol::ExpandPid(text, pid, [&](char c) { expanded += c; });
  return expanded;
}

std::string ProcessInfo::Label() const {
  return std::to_string(pid) + " (" + Printable(name) + ")";
}

std::string ProcessInfo::PropertiesPath() const {
  return JoinPath(root, protocol::kPropertiesFile);
}

std::string ProcessInfo::ReportPath() const {
  return JoinPath(root, protocol::kReportFile);
}

bool IsEmulator(const std::string& executable) {
  return LastPart(executable).starts_with(kEmulatorPrefix);
}

bool RunsEmulated() {
  // The emulator answers /proc/self/exe with the guest's program, but not this alias.
  return IsEmulator(LinkTarget("/proc/thread-self/exe"));
}

}  // namespace memleak
