// SPDX-License-Identifier: Apache-2.0
#include "tools/target/attach_checks.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <optional>

#include "tools/base/files.h"
#include "tools/base/names.h"
#include "tools/base/proc_files.h"
#include "tools/target/elf_file.h"
#include "tools/target/inspect.h"
#include "tools/target/maps.h"
#include "tools/target/root_directory.h"
#include "tools/target/task_status.h"

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

std::string PidNamespace(pid_t pid) {
  return LinkTarget("/proc/" + std::to_string(pid) + "/ns/pid");
}

// The first process of the PID namespace of `process`; 0 if it is not visible.
pid_t FirstProcess(const ProcessInfo& process) {
  const std::string space = PidNamespace(process.pid);
  if (space == PidNamespace(getpid())) return 1;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator("/proc", error)) {
    const pid_t pid = std::atoi(entry.path().filename().c_str());
    if (pid <= 0 || PidNamespace(pid) != space) continue;
    if (InnerPid(ReadTextFile(entry.path() / "status").value_or(""), pid) == 1) return pid;
  }
  return 0;
}

std::string Filters(unsigned count) {
  return std::to_string(count) + (count == 1 ? " seccomp filter" : " seccomp filters");
}

}  // namespace

void CheckFilters(const ProcessInfo& process) {
  const unsigned own = SeccompFilters(process.pid);
  if (own == 0) return;
  const pid_t first = FirstProcess(process);
  const unsigned common = first == 0 ? 0 : SeccompFilters(first);
  if (own <= common) return;
  throw UserError(
      "process " + process.Label() + " has " + Filters(own) +
          (common == 0 ? "" : ", the first process of its container has " + Filters(common)) +
          "; the process may end if a filter forbids a system call of the tracker, such as openat",
      "if the filters allow such calls: memleak attach --force " + std::to_string(process.pid));
}

void CheckAttachable(const ProcessInfo& process) {
  CheckTracer(process);
  const std::vector<Mapping> mappings = ParseMaps(ReadMaps(process.pid));
  if (mappings.empty()) {
    throw UserError("process " + process.Label() + " is a thread of the kernel",
                    "give the id of a user process");
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
