// Names and paths of a process.
#include "tools/target/process_info.h"

#include "tools/base/control.h"
#include "tools/base/files.h"
#include "tools/base/names.h"

namespace memleak {

std::string ExpandPid(std::string_view text, pid_t pid) {
  std::string expanded;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text.substr(i, 2) == "%p") {
      expanded += std::to_string(pid);
      ++i;
    } else {
      expanded += text[i];
    }
  }
  return expanded;
}

std::string ProcessInfo::Label() const {
  return std::to_string(pid) + " (" + Printable(name) + ")";
}

std::string ProcessInfo::PropertiesPath() const {
  return JoinPath(root, kPropertiesFile);
}

std::string ProcessInfo::ReportPath() const {
  return JoinPath(root, kReportFile);
}

bool IsEmulator(const std::string& executable) {
  return LastPart(executable).starts_with("qemu-");
}

bool RunsEmulated() {
  // The emulator replaces /proc/self/exe by the guest's program, but not this alias.
  return IsEmulator(LinkTarget("/proc/thread-self/exe"));
}

}  // namespace memleak
