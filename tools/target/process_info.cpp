// SPDX-License-Identifier: Apache-2.0
#include "tools/target/process_info.h"

#include "protocol/protocol.h"
#include "tools/base/files.h"
#include "tools/base/names.h"

namespace memleak {

std::string ExpandPid(std::string_view text, pid_t pid) {
  std::string expanded;
  protocol::ExpandPid(text, pid, [&](char c) { expanded += c; });
  return expanded;
}

bool ProcessInfo::IsDetached() const {
  return state && !has_state_of_parent && (*state)->form == protocol::Form::kDetached;
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

std::string ProcessInfo::Shown(const std::string& path) const {
  std::string text = Printable(path);
  if (outside.empty()) return text;
  return text + " (in the process: " + Printable(path.substr(outside.size())) + ")";
}

bool IsEmulator(const std::string& executable) {
  return LastPart(executable).starts_with("qemu-");
}

bool RunsEmulated() {
  // The emulator replaces /proc/self/exe by the guest's program, but not this alias.
  return IsEmulator(LinkTarget("/proc/thread-self/exe"));
}

}  // namespace memleak
