// SPDX-License-Identifier: Apache-2.0
// A process as /proc describes it. Single-threaded.
#pragma once

#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "tools/base/user_error.h"
#include "tools/target/state_file.h"

namespace memleak {

/// Replaces every "%p" in `text` by `pid`.
std::string ExpandPid(std::string_view text, pid_t pid);

/// A running process as seen from outside.
struct ProcessInfo {
  pid_t pid = 0;
  pid_t inner_pid = 0;          ///< as the process itself sees it, in its own PID namespace
  uid_t user = 0;               ///< its effective user, who owns its files
  gid_t group = 0;              ///< its effective group
  std::string name;             ///< /proc/PID/comm; the guest program's under an emulator
  std::string executable;       ///< target of /proc/PID/exe
  bool is_emulated = false;     ///< the executable is a user-mode emulator ("qemu-...")
  bool is_stopped = false;      ///< by a signal or a debugger
  bool has_tracker = false;     ///< the tracker's library is mapped
  bool catches_signal = false;  ///< it catches signal 44; meaningless for an emulated process

  /// Its state file; null on devices, or if there is a `problem`.
  std::shared_ptr<StateFile> state;
  bool has_state_of_parent = false;  ///< it was forked and has not made its own state file yet
  std::optional<UserError> problem;  ///< why a process with the tracker has no usable state file

  /// Absolute path of its root directory, as this controller can use it.
  std::string root;
  /// What precedes a path that the process uses, so that this controller finds the same file:
  /// "/proc/PID/root" if the process has other mounts, else empty.
  std::string outside;
  /// Absolute path of the tracker's log, with `outside`; empty if there is none or it is the error
  /// output. On devices the command that shows it.
  std::string log;
  /// The properties file of processes that have none of their own, with `outside`; empty if unset.
  std::string shared_properties;

  /// Whether the loader was attached and then detached.
  bool IsDetached() const;
  /// "PID (NAME)" for messages, the name as Printable writes it.
  std::string Label() const;
  std::string PropertiesPath() const;
  std::string ReportPath() const;
  /// `path`, which starts with `outside`, for messages. Adds the path that the process uses if it
  /// differs.
  std::string Shown(const std::string& path) const;
};

/// Whether `executable` is a user-mode emulator.
bool IsEmulator(const std::string& executable);

/// Whether this controller itself runs under a user-mode emulator.
bool RunsEmulated();

}  // namespace memleak
