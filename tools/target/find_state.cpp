// SPDX-License-Identifier: Apache-2.0
// The loader maps the state file, which is in the root directory of the process. So the mapping
// names the root directory, even if the process has overwritten its environment.
#include "tools/target/find_state.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <sstream>
#include <string>

#include "protocol/protocol.h"
#include "tools/base/files.h"
#include "tools/base/names.h"
#include "tools/target/maps.h"

namespace memleak {
namespace {

constexpr int kOpenFlags = O_RDWR | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC;

std::string ProcPath(const ProcessInfo& process, const char* name) {
  return "/proc/" + std::to_string(process.pid) + "/" + name;
}

// Whether `path` is the state file below a root directory, or one of another process with the same
// root directory.
bool IsStateName(const std::string& path) {
  const std::string name = LastPart(path);
  const std::string first = protocol::kStatePath + 1;
  if (!name.starts_with(first)) return false;
  if (name == first) return true;
  return name[first.size()] == '.' && name.size() > first.size() + 1 &&
         name.find_first_not_of("0123456789.", first.size() + 1) == std::string::npos;
}

// Opens the mapped file by its link in /proc/PID/map_files, which only root may follow. It leads to
// the file that the process itself has opened for writing, even if that has been removed.
Descriptor OpenMapped(const ProcessInfo& process, const Mapping& mapping) {
  std::ostringstream path;
  path << ProcPath(process, "map_files/") << std::hex << mapping.start << "-" << mapping.end;
  return Descriptor(open(path.str().c_str(), O_RDWR | O_CLOEXEC));
}

// Opens the mapped file by its path, as the process's user. Links do not lead out of the root
// directory of the process.
Descriptor OpenByPath(const ProcessInfo& process, const Mapping& mapping) {
  const AsUserOf user(process);
  const std::string root = process.outside.empty() ? "/" : process.outside;
  Descriptor file = OpenInRoot(root, mapping.path, kOpenFlags);
  // Emulators and old kernels follow links. The inode is compared below.
  if (!file.IsOpen() && errno == ENOSYS) {
    file = Descriptor(open((process.outside + mapping.path).c_str(), kOpenFlags));
  }
  struct stat status {};
  const bool is_mapped =
      file.IsOpen() && fstat(file.Number(), &status) == 0 && status.st_ino == mapping.inode;
  if (is_mapped || !file.IsOpen()) return file;
  errno = ENOENT;
  return Descriptor();
}

bool SharesMounts(const ProcessInfo& process) {
  return LinkTarget(ProcPath(process, "ns/mnt")) == LinkTarget("/proc/self/ns/mnt");
}

UserError CannotOpen(const ProcessInfo& process, const Mapping& mapping, int error) {
  const std::string path = process.Shown(process.outside + mapping.path);
  if (mapping.deleted || error == ENOENT) {
    return {"the root directory of process " + process.Label() + " was removed: " + path,
            "run memleak as root, or restart the process"};
  }
  return {"cannot open the state of process " + process.Label() + ": " + path + ": " +
              std::strerror(error),
          "run memleak as the user who started the process, or as root"};
}

UserError Incompatible(const ProcessInfo& process, const StateFile& state) {
  return {
      "process " + process.Label() + " has version " + Printable(state.Version()) +
          " of the tracker's libraries, and this is memleak " + MEMLEAK_VERSION,
      state.Version() == MEMLEAK_VERSION
          ? "use the memleak of the same build, or restart the process with this one"
          : "use memleak " + Printable(state.Version()) + ", or restart the process with this one"};
}

// Uses the state file that `mapping` shows, unless it is something else. Returns whether it is the
// process's own.
bool Take(const Mapping& mapping, ProcessInfo* process) {
  Descriptor file = OpenMapped(*process, mapping);
  if (!file.IsOpen()) file = OpenByPath(*process, mapping);
  if (!file.IsOpen()) {
    if (!process->state) process->problem = CannotOpen(*process, mapping, errno);
    return false;
  }
  auto state = std::make_shared<StateFile>(std::move(file));
  if (state->Kind() == StateKind::kForeign) return false;
  if (state->Kind() == StateKind::kIncompatible) {
    process->problem = Incompatible(*process, *state);
    return false;
  }
  process->root = process->outside + mapping.path.substr(0, mapping.path.rfind('/'));
  if (process->root.empty()) process->root = "/";
  process->has_state_of_parent = (*state)->pid != process->inner_pid;
  process->state = std::move(state);
  process->problem.reset();
  return !process->has_state_of_parent;
}

std::string Outside(const ProcessInfo& process, const std::string& path) {
  return path.empty() ? path : process.outside + path;
}

}  // namespace

AsUserOf::AsUserOf(const ProcessInfo& process) {
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

AsUserOf::~AsUserOf() {
  // Continuing with other permissions would be wrong.
  if (active_ &&
      (seteuid(0) != 0 || setegid(group_) != 0 || setgroups(groups_.size(), groups_.data()) != 0)) {
    std::abort();
  }
}

void FindState(std::string_view maps, ProcessInfo* process) {
  if (!SharesMounts(*process)) process->outside = "/proc/" + std::to_string(process->pid) + "/root";
  if (!process->has_tracker) return;
  // A forked child that has its own state file may still map that of its parent.
  for (const Mapping& mapping : ParseMaps(maps)) {
    const bool candidate = mapping.IsFile() && mapping.shared_writable && mapping.offset == 0 &&
                           IsStateName(mapping.path);
    if (candidate && Take(mapping, process)) break;
  }
  if (!process->state) {
    if (!process->problem) {
      process->problem.emplace(
          "process " + process->Label() + " has no state file, so it takes no commands",
          "restart it with a root directory that its user can create: memleak run --root DIR");
    }
    return;
  }
  const StateFile& state = *process->state;
  process->log = Outside(*process, TextOf(state->log));
  process->shared_properties = Outside(*process, TextOf(state->shared_properties));
}

}  // namespace memleak
