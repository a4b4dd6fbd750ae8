// SPDX-License-Identifier: Apache-2.0
#include "tools/target/attach_checks.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <optional>

#include "tools/base/files.h"
#include "tools/base/names.h"
#include "tools/base/proc_files.h"
#include "tools/target/elf_file.h"
#include "tools/target/inspect.h"
#include "tools/target/maps.h"
#include "tools/target/root_directory.h"

namespace memleak {
namespace {

constexpr const char* kScope = "/proc/sys/kernel/yama/ptrace_scope";

std::string Proc(const ProcessInfo& process, const char* name) {
  return "/proc/" + std::to_string(process.pid) + "/" + name;
}

void CheckTracer(const ProcessInfo& process) {
  const std::string status = ReadTextFile(Proc(process, "status")).value_or("");
  const int tracer = std::atoi(StatusField(status, "TracerPid").c_str());
  if (tracer == 0) return;
  std::string name = ReadTextFile("/proc/" + std::to_string(tracer) + "/comm").value_or("");
  name.resize(std::min(name.size(), name.find('\n')));
  throw UserError("process " + process.Label() + " is traced by process " + std::to_string(tracer) +
                      " (" + Printable(name) + ")",
                  "end that debugger first");
}

// The kernel permits to open this file as it permits to trace the process.
void CheckPermission(const ProcessInfo& process) {
  const int file = open(Proc(process, "mem").c_str(), O_RDWR | O_CLOEXEC);
  if (file < 0) throw Refused(process, "");
  close(file);
}

void CheckProgram(const ProcessInfo& process, const std::vector<Mapping>& mappings) {
  const std::string program = process.Shown(process.outside + process.executable);
  const std::optional<ElfInfo> image = ReadElf(Proc(process, "exe"));
  if (process.is_emulated) {
    throw UserError(
        "process " + process.Label() + " is emulated by " + Printable(process.executable),
        "start the program with: memleak run --emulator");
  }
  if (image && (!image->is_64_bit || image->machine != OwnMachine())) {
    throw UserError("program is for another architecture: " + program + " is for " +
                        (image->is_64_bit ? "" : "32-bit ") + MachineName(image->machine),
                    "use a memleak that was built for it");
  }
  const auto maps = [&](std::initializer_list<const char*> starts) {
    return std::any_of(mappings.begin(), mappings.end(), [&](const Mapping& mapping) {
      const std::string name = LastPart(mapping.path);
      return mapping.IsFile() && std::any_of(starts.begin(), starts.end(), [&](const char* start) {
               return name.starts_with(start);
             });
    });
  };
  const bool is_musl = image && LastPart(image->interpreter).starts_with("ld-musl");
  if (is_musl || maps({"ld-musl", "libc.musl"})) {
    throw UserError("program is for the C library musl: " + program + "; the tracker needs glibc",
                    "use a program built for glibc");
  }
  if (!maps({"libc.so.6", "libc-2."})) {
    throw UserError("program is statically linked: " + program + " has no dynamic linker",
                    "link it dynamically");
  }
}

}  // namespace

void CheckAttachable(const ProcessInfo& process) {
  CheckTracer(process);
  const std::vector<Mapping> mappings = ParseMaps(ReadMaps(process.pid));
  if (mappings.empty()) {
    throw UserError("process " + process.Label() + " is a thread of the kernel",
                    "name a process that runs a program");
  }
  CheckPermission(process);
  RequireRunning(process);
  CheckProgram(process, mappings);
  const std::string root = LinkTarget(Proc(process, "root"));
  if (process.outside.empty() && root != LinkTarget("/proc/self/root")) {
    throw UserError(
        "process " + process.Label() + " has another root directory: " + Printable(root),
        "run memleak inside: chroot " + Printable(root));
  }
}

UserError Refused(const ProcessInfo& process, const std::string& output) {
  const std::string what = "not permitted to attach to process " + process.Label() +
                           (output.empty() ? "" : ": " + output);
  const int scope = std::atoi(ReadTextFile(kScope).value_or("0").c_str());
  if (scope > 0 && (geteuid() != 0 || scope > 2)) {
    return {what + " (kernel.yama.ptrace_scope is " + std::to_string(scope) + ")",
            scope > 2 ? "restart the system with another value"
                      : "run memleak as root, or: sysctl kernel.yama.ptrace_scope=0"};
  }
  return {what, "run memleak as root; in a container, start that with --cap-add SYS_PTRACE"};
}

UserError StartedByRun(const ProcessInfo& process) {
  return {"process " + process.Label() + " was started by memleak run and is already tracked",
          "start recording with: memleak on " + std::to_string(process.pid)};
}

}  // namespace memleak
