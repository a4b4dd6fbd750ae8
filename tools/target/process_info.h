// A process as /proc describes it, and parsers of /proc files. Single-threaded.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace memleak {

/// The value of the field `name` in the text of /proc/PID/status; empty when there is none.
std::string_view StatusField(std::string_view status, std::string_view name);

/// True when bit `signal` - 1 of the SigCgt mask in the text of /proc/PID/status is set.
bool CatchesSignal(std::string_view status, int signal);

/// True when the text of /proc/PID/status says that the process has ended and waits to be reaped.
bool IsZombie(std::string_view status);

/// True when a line of the text of /proc/PID/maps names a file whose last path part is `library`.
bool MapsLibrary(std::string_view maps, std::string_view library);

/// Splits the text of /proc/PID/environ. Of two entries with one name the first counts, as for
/// getenv; entries without '=' are dropped.
std::map<std::string, std::string> ParseEnvironment(std::string_view environ_text);

/// The start time in the text of /proc/PID/stat, in clock ticks since the system started; nothing
/// if the text is malformed.
std::optional<std::uint64_t> StartTicks(std::string_view stat);

/// The file name of the program that an emulator runs, from the text of the emulator's
/// /proc/PID/cmdline; empty if there is none.
std::string GuestName(std::string_view cmdline);

/// Replaces every "%p" in `text` by `pid`.
std::string ExpandPid(std::string_view text, pid_t pid);

/// A running process as seen from outside.
struct ProcessInfo {
  pid_t pid = 0;
  uid_t user = 0;               ///< its effective user, to whom its files belong
  gid_t group = 0;              ///< its effective group
  std::string name;             ///< /proc/PID/comm; the guest program's under an emulator
  std::string executable;       ///< target of /proc/PID/exe
  bool is_emulated = false;     ///< the executable is a user-mode emulator ("qemu-...")
  bool has_tracker = false;     ///< the tracker's library is mapped
  bool catches_signal = false;  ///< 44 is caught; tells nothing about an emulated process
  std::map<std::string, std::string> environment;
  /// Absolute root directory ("/" when the environment names none).
  std::string root;
  /// Absolute path of the tracker's log, empty when there is none or it is the error output.
  std::string log;
  /// The properties file shared by processes without an own one; empty when unset.
  std::string shared_properties;

  /// "PID (NAME)" for messages, the name as Printable writes it.
  std::string Label() const;
  std::string PropertiesPath() const;
  std::string ReportPath() const;
};

/// True when `executable` is a user-mode emulator.
bool IsEmulator(const std::string& executable);

/// Whether this controller itself runs under a user-mode emulator.
bool RunsEmulated();

}  // namespace memleak
