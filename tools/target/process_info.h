// SPDX-License-Identifier: Apache-2.0
// A process as /proc describes it. Single-threaded.
#pragma once

#include <sys/types.h>

#include <map>
#include <string>
#include <string_view>

namespace memleak {

/// Replaces every "%p" in `text` by `pid`.
std::string ExpandPid(std::string_view text, pid_t pid);

/// A running process as seen from outside.
struct ProcessInfo {
  pid_t pid = 0;
  uid_t user = 0;               ///< its effective user, who owns its files
  gid_t group = 0;              ///< its effective group
  std::string name;             ///< /proc/PID/comm; the guest program's under an emulator
  std::string executable;       ///< target of /proc/PID/exe
  bool is_emulated = false;     ///< the executable is a user-mode emulator ("qemu-...")
  bool has_tracker = false;     ///< the tracker's library is mapped
  bool catches_signal = false;  ///< it catches signal 44; meaningless for an emulated process
  std::map<std::string, std::string> environment;
  /// Absolute path of its root directory ("/" if the environment names none).
  std::string root;
  /// Absolute path of the tracker's log; empty if there is none or it is the error output.
  std::string log;
  /// The properties file of processes that have none of their own; empty if unset.
  std::string shared_properties;

  /// "PID (NAME)" for messages, the name as Printable writes it.
  std::string Label() const;
  std::string PropertiesPath() const;
  std::string ReportPath() const;
};

/// Whether `executable` is a user-mode emulator.
bool IsEmulator(const std::string& executable);

/// Whether this controller itself runs under a user-mode emulator.
bool RunsEmulated();

}  // namespace memleak
