// What /proc tells about a process: is the tracker in it, would it survive the control signal,
// where does it keep its files. The text parsers stand apart from the reading, so they can be
// tested with made-up text. Single-threaded.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace memleak {

/// True when bit `signal` - 1 of the SigCgt mask in the text of /proc/PID/status is set.
bool CatchesSignal(std::string_view status, int signal);

/// True when the text of /proc/PID/status says that the process has ended and waits to be reaped.
bool IsZombie(std::string_view status);

/// True when a line of the text of /proc/PID/maps names a file whose last path part is `library`.
bool MapsLibrary(std::string_view maps, std::string_view library);

/// Splits the text of /proc/PID/environ. Of two entries with one name the first counts, as for
/// getenv; entries without '=' are dropped.
std::map<std::string, std::string> ParseEnvironment(std::string_view environ_text);

/// When the process of this text of /proc/PID/stat was forked, in clock ticks since the system
/// started; nothing when the text is not one.
std::optional<std::uint64_t> StartTicks(std::string_view stat);

/// The program that an emulator runs, without its directory, from the text of the emulator's
/// /proc/PID/cmdline; empty when that names none.
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

/// The text of /proc/PID/maps. Throws UserError as InspectProcess does.
std::string ReadMaps(pid_t pid);

/// Looks at process `pid`. Throws UserError when there is no such process or looking is not
/// allowed.
ProcessInfo InspectProcess(pid_t pid);

/// How long a command waits for a process that is only just being started. Emulators are slow.
inline constexpr int kStartPatienceMs = 3000;

/// As InspectProcess, for a process that a command is about to be sent to. Throws UserError unless
/// the tracker is loaded and the signal is handled: at once for a process of more than 3 s, after
/// up to `patience_ms` for one that is younger or still this controller. A young process under an
/// emulator is given a moment after the tracker is loaded, within the same patience.
ProcessInfo RequireTracked(pid_t pid, int patience_ms = kStartPatienceMs);

/// True while `pid` names a process that has not ended.
bool IsAlive(pid_t pid);

/// Whether this controller itself runs under a user-mode emulator.
bool RunsEmulated();

/// What the tracker's log says about native recording.
enum class Recording { kUnknown, kNever, kOn, kPaused, kStopped };

/// The state after the last command in the text of a tracker log.
Recording RecordingFromLog(std::string_view log);

}  // namespace memleak
