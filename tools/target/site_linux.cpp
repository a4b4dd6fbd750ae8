// SPDX-License-Identifier: Apache-2.0
// Programs under the loader. Their environment names their files.
#include <grp.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <vector>

#include "protocol/protocol.h"
#include "tools/base/files.h"
#include "tools/base/user_error.h"
#include "tools/target/root_directory.h"
#include "tools/target/site.h"

namespace memleak {
namespace {

namespace fs = std::filesystem;

// The absolute form of a path from the process's environment, with "%p" replaced.
std::string OwnPath(const std::string& value, const ProcessInfo& process) {
  const fs::path path = ExpandPid(value, process.pid);
  if (path.is_absolute()) return path.lexically_normal().string();
  const fs::path cwd = LinkTarget("/proc/" + std::to_string(process.pid) + "/cwd");
  return (cwd / path).lexically_normal().string();
}

std::string Lookup(const std::map<std::string, std::string>& environment, const char* name) {
  const auto entry = environment.find(name);
  return entry == environment.end() ? "" : entry->second;
}

// Drops root's file permissions to those of a process's user while it exists. The process names its
// files: it must not make root read or write files that its own user cannot.
class AsUserOf {
 public:
  explicit AsUserOf(const ProcessInfo& process) {
    if (geteuid() != 0 || process.user == 0) return;
    group_ = getegid();
    groups_.resize(static_cast<std::size_t>(getgroups(0, nullptr)));
    const int count = static_cast<int>(groups_.size());
    active_ = getgroups(count, groups_.data()) == count && setgroups(0, nullptr) == 0 &&
              setegid(process.group) == 0 && seteuid(process.user) == 0;
    if (active_) return;
    throw UserError("cannot become user " + std::to_string(process.user) + ", the owner of " +
                        process.Label() + ": " + std::strerror(errno),
                    "run memleak as that user");
  }
  ~AsUserOf() {
    // Continuing with other permissions would be wrong.
    if (active_ && (seteuid(0) != 0 || setegid(group_) != 0 ||
                    setgroups(groups_.size(), groups_.data()) != 0)) {
      std::abort();
    }
  }
  AsUserOf(const AsUserOf&) = delete;
  AsUserOf& operator=(const AsUserOf&) = delete;

 private:
  bool active_ = false;
  gid_t group_ = 0;
  std::vector<gid_t> groups_;
};

}  // namespace

void FindPlaces(ProcessInfo* process) {
  const std::string root = Lookup(process->environment, protocol::kRootVariable);
  process->root = root.empty() ? "/" : OwnPath(root, *process);
  const std::string log = Lookup(process->environment, protocol::kLogVariable);
  if (!log.empty() && log != "stderr") process->log = OwnPath(log, *process);
  const std::string shared = Lookup(process->environment, protocol::kPropertiesVariable);
  if (!shared.empty()) process->shared_properties = OwnPath(shared, *process);
}

StoredSettings ReadSettings(const ProcessInfo& process) {
  const AsUserOf user(process);
  if (const auto text = ReadProperties(process.root)) {
    return {*text, process.PropertiesPath(), false};
  }
  // A process without its own file reads the shared one. Its own file will hide the shared one, and
  // so starts as a copy.
  const std::string& shared = process.shared_properties;
  if (const auto text = ReadTextFile(shared)) return {*text, shared, false};
  return {"", "", shared.empty() && process.root != "/"};
}

void WriteSettings(const ProcessInfo& process, const std::string& text) {
  const AsUserOf user(process);
  WriteProperties(process.root, text);
}

std::string LogPlace(const ProcessInfo& process) {
  return process.log;
}

std::string WhyUnknown(const ProcessInfo& process) {
  std::string text =
      process.environment.contains(protocol::kStartVariable) ? ", was on at the start" : "";
  if (!process.log.empty()) return text;
  return text + (Lookup(process.environment, protocol::kLogVariable).empty()
                     ? " (no log; use memleak run --log FILE)"
                     : " (its log goes to its error output)");
}

std::string FetchCommand(const std::string& /*path*/) {
  return "";
}

const SiteAdvice& Advice() {
  static constexpr SiteAdvice kAdvice = {
      "pgrep -a NAME",
      "run memleak as the user who owns it, or as root",
      "with: memleak run -- PROGRAM",
      "start it with: memleak run --report-at-exit",
      "sent; without a log the result is unknown",
      "the result is unknown: its log is missing or unreadable, and\n"
      "reading its memory needs debug permission (use memleak run --log FILE, or root)"};
  return kAdvice;
}

}  // namespace memleak
