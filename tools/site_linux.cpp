// Programs under the loader: their environment says where they keep their files.
#include <filesystem>

#include "tools/control.h"
#include "tools/files.h"
#include "tools/root_directory.h"
#include "tools/site.h"

namespace memleak {
namespace {

namespace fs = std::filesystem;

// A path from the process's environment, absolute, with "%p" replaced.
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

}  // namespace

void FindPlaces(ProcessInfo* process) {
  const std::string root = Lookup(process->environment, kRootVariable);
  process->root = root.empty() ? "/" : OwnPath(root, *process);
  const std::string log = Lookup(process->environment, kLogVariable);
  if (!log.empty() && log != "stderr") process->log = OwnPath(log, *process);
  const std::string shared = Lookup(process->environment, kPropertiesVariable);
  if (!shared.empty()) process->shared_properties = OwnPath(shared, *process);
}

StoredSettings ReadSettings(const ProcessInfo& process) {
  const std::string own = process.PropertiesPath();
  if (const auto text = ReadTextFile(own)) return {*text, own, false};
  // A process without an own file takes those that it shares; an own one hides them, and so is to
  // start as their copy.
  const std::string& shared = process.shared_properties;
  if (const auto text = ReadTextFile(shared)) return {*text, shared, false};
  return {"", "", shared.empty() && process.root != "/"};
}

void WriteSettings(const ProcessInfo& process, const std::string& text) {
  WriteProperties(process.root, text);
}

std::string LogPlace(const ProcessInfo& process) {
  return process.log;
}

std::string WhyUnknown(const ProcessInfo& process) {
  std::string text = process.environment.contains(kStartVariable) ? ", on when it was started" : "";
  if (!process.log.empty()) return text;
  return text + (Lookup(process.environment, kLogVariable).empty()
                     ? " (no log; memleak run --log FILE makes one)"
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
      "sent; there is no log that would tell",
      "what came of it cannot be seen: it has no log that can be\n"
      "read, and its memory takes the right to debug it (memleak run --log FILE, or root)"};
  return kAdvice;
}

}  // namespace memleak
