// Reading and parsing /proc for the commands that name a PID.
#include "tools/target/process_info.h"

#include <fcntl.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <thread>

#include "tools/base/control.h"
#include "tools/base/files.h"
#include "tools/base/names.h"
#include "tools/base/user_error.h"
#include "tools/target/log_tail.h"
#include "tools/target/site.h"

namespace memleak {
namespace {

constexpr std::string_view kEmulatorPrefix = "qemu-";
constexpr auto kStartPoll = std::chrono::milliseconds(20);
// A process younger than this may still have to become the program, or its dynamic linker to come
// to the tracker.
constexpr double kYoungSeconds = 3.0;
// From the tracker's being mapped to its handler's being set, where no mask tells of the latter.
constexpr auto kEmulatedSettle = std::chrono::milliseconds(500);

// Calls `visit` for every line of `text` until it returns false.
template <typename Visitor>
void ForEachLine(std::string_view text, char separator, Visitor visit) {
  while (!text.empty()) {
    const std::size_t end = text.find(separator);
    if (!visit(text.substr(0, end)) || end == std::string_view::npos) return;
    text.remove_prefix(end + 1);
  }
}

std::string_view StatusField(std::string_view status, std::string_view name) {
  std::string_view value;
  ForEachLine(status, '\n', [&](std::string_view line) {
    if (!line.starts_with(name) || line.substr(name.size(), 1) != ":") return true;
    line.remove_prefix(name.size() + 1);
    const std::size_t start = line.find_first_not_of(" \t");
    value = start == std::string_view::npos ? std::string_view() : line.substr(start);
    return false;
  });
  return value;
}

// The effective one of the ids in a field such as "Uid": real, effective, saved, file system.
std::uint32_t EffectiveId(std::string_view status, std::string_view name) {
  std::string_view ids = StatusField(status, name);
  ids.remove_prefix(std::min(ids.find('\t') + 1, ids.size()));
  std::uint32_t id = 0;
  std::from_chars(ids.data(), ids.data() + ids.size(), id);
  return id;
}

UserError NoSuchProcess(pid_t pid) {
  return {"no such process: " + std::to_string(pid),
          std::string("find it with: ") + Advice().find_pid};
}

UserError NotPermitted(pid_t pid, const std::string& path) {
  return {"not permitted to look at process " + std::to_string(pid) + " (" + path + ")",
          Advice().permission};
}

// Reads a whole file of /proc; errors become the messages a person needs.
std::string ReadProc(pid_t pid, const std::string& name) {
  const std::string path = "/proc/" + std::to_string(pid) + "/" + name;
  const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (file < 0) {
    if (errno == EACCES || errno == EPERM) throw NotPermitted(pid, path);
    throw NoSuchProcess(pid);
  }
  std::string text;
  std::array<char, 65536> buffer{};
  ssize_t count = 0;
  while ((count = read(file, buffer.data(), buffer.size())) > 0) {
    text.append(buffer.data(), static_cast<std::size_t>(count));
  }
  const int error = errno;
  close(file);
  if (count < 0 && (error == EACCES || error == EPERM)) throw NotPermitted(pid, path);
  if (count < 0) throw NoSuchProcess(pid);
  return text;
}

// Whether the process was forked only just now. Its environment tells nothing yet: before it
// becomes a program it is a copy of the shell.
bool IsYoung(pid_t pid) {
  const std::optional<std::uint64_t> ticks = StartTicks(ReadProc(pid, "stat"));
  timespec now{};
  if (!ticks || clock_gettime(CLOCK_BOOTTIME, &now) != 0) return false;
  const double start = static_cast<double>(*ticks) / static_cast<double>(sysconf(_SC_CLK_TCK));
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9 - start <
         kYoungSeconds;
}

// The text of /proc/PID/status of a process that has not ended.
std::string ReadStatus(pid_t pid) {
  std::string status = ReadProc(pid, "status");
  if (IsZombie(status)) {
    throw UserError("no such process: " + std::to_string(pid) + " has ended", "start it again");
  }
  return status;
}

// What a process is running: these change when it becomes another program.
struct Image {
  std::string executable;
  std::string environment;
  bool operator==(const Image&) const = default;
};

Image ReadImage(pid_t pid) {
  return {LinkTarget("/proc/" + std::to_string(pid) + "/exe"), ReadProc(pid, "environ")};
}

// One look at a process; says in `steady` whether it was one and the same program throughout.
ProcessInfo Look(pid_t pid, bool* steady) {
  // First for processes that have ended: only root may read the rest of theirs.
  ReadStatus(pid);
  const Image image = ReadImage(pid);
  const std::string status = ReadStatus(pid);
  ProcessInfo process;
  process.pid = pid;
  process.user = EffectiveId(status, "Uid");
  process.group = EffectiveId(status, "Gid");
  process.name = StatusField(status, "Name");
  process.catches_signal = CatchesSignal(status, kControlSignal);
  process.environment = ParseEnvironment(image.environment);
  process.has_tracker = MapsLibrary(ReadMaps(pid), kTrackerLibrary);
  process.executable = image.executable;
  process.is_emulated = LastPart(process.executable).starts_with(kEmulatorPrefix);
  if (process.is_emulated) {
    const std::string guest = GuestName(ReadProc(pid, "cmdline"));
    if (!guest.empty()) process.name = guest;
  }
  *steady = image == ReadImage(pid);
  return process;
}

UserError NotTracked(const ProcessInfo& process) {
  if (!process.has_tracker) {
    return {"process " + process.Label() + " is not loaded with the tracker; nothing was sent",
            std::string("start it ") + Advice().with_tracker};
  }
  return {"process " + process.Label() +
              " does not catch signal 44, which would kill it; nothing was sent",
          std::string("start it anew ") + Advice().with_tracker};
}

}  // namespace

bool CatchesSignal(std::string_view status, int signal) {
  const std::string_view mask = StatusField(status, "SigCgt");
  std::uint64_t bits = 0;
  const auto result = std::from_chars(mask.data(), mask.data() + mask.size(), bits, 16);
  return result.ec == std::errc() && ((bits >> (signal - 1)) & 1) != 0;
}

bool IsZombie(std::string_view status) {
  const std::string_view state = StatusField(status, "State");
  return state.starts_with('Z') || state.starts_with('X');
}

bool MapsLibrary(std::string_view maps, std::string_view library) {
  // A library that was rebuilt meanwhile is still the one in force.
  constexpr std::string_view kDeleted = " (deleted)";
  bool found = false;
  ForEachLine(maps, '\n', [&](std::string_view line) {
    if (line.ends_with(kDeleted)) line.remove_suffix(kDeleted.size());
    const std::size_t slash = line.rfind('/');
    found = slash != std::string_view::npos && line.substr(slash + 1) == library;
    return !found;
  });
  return found;
}

std::map<std::string, std::string> ParseEnvironment(std::string_view environ_text) {
  std::map<std::string, std::string> environment;
  ForEachLine(environ_text, '\0', [&](std::string_view entry) {
    const std::size_t equals = entry.find('=');
    if (equals != std::string_view::npos) {
      environment.emplace(entry.substr(0, equals), entry.substr(equals + 1));
    }
    return true;
  });
  return environment;
}

std::optional<std::uint64_t> StartTicks(std::string_view stat) {
  // The name, second, may hold blanks and parentheses; the start time is the 20th after it.
  constexpr int kFieldsBefore = 19;
  const std::size_t name_end = stat.rfind(") ");
  if (name_end == std::string_view::npos) return std::nullopt;
  std::optional<std::uint64_t> ticks;
  int field = 0;
  ForEachLine(stat.substr(name_end + 2), ' ', [&](std::string_view text) {
    if (field++ < kFieldsBefore) return true;
    std::uint64_t value = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
    if (result.ec == std::errc()) ticks = value;
    return false;
  });
  return ticks;
}

std::string GuestName(std::string_view cmdline) {
  constexpr std::array<std::string_view, 17> kWithValue = {
      "-g", "-L", "-s", "-E", "-U",   "-0",    "-r",      "-B",      "-R",
      "-D", "-d", "-p", "-t", "-cpu", "-seed", "-plugin", "-dfilter"};
  std::string name;
  bool skip = true;  // the emulator itself
  ForEachLine(cmdline, '\0', [&](std::string_view word) {
    if (skip) {
      skip = false;
      return true;
    }
    if (!word.starts_with('-')) {
      name = word.substr(word.rfind('/') + 1);
      return false;
    }
    skip = std::find(kWithValue.begin(), kWithValue.end(), word) != kWithValue.end();
    return true;
  });
  return name;
}

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

std::string ReadMaps(pid_t pid) {
  return ReadProc(pid, "maps");
}

ProcessInfo InspectProcess(pid_t pid) {
  if (pid <= 0) throw UserError("not a process id: " + std::to_string(pid), "give a PID above 0");
  // A program that starts another without end is taken as it is after some looks.
  constexpr int kLooks = 10;
  bool steady = false;
  ProcessInfo process = Look(pid, &steady);
  for (int look = 1; !steady && look < kLooks; ++look) process = Look(pid, &steady);

  FindPlaces(&process);
  return process;
}

ProcessInfo RequireTracked(pid_t pid, int patience_ms) {
  using std::chrono::steady_clock;
  const auto deadline = steady_clock::now() + std::chrono::milliseconds(patience_ms);
  const std::string controller = LinkTarget("/proc/self/exe");
  std::optional<steady_clock::time_point> mapped;
  bool was_controller = false;
  while (true) {
    ProcessInfo process = InspectProcess(pid);
    const auto now = steady_clock::now();
    // An old shell may become the controller too, and that the program.
    was_controller = was_controller || process.executable == controller;
    const bool starting = now < deadline && (was_controller || IsYoung(pid));
    if (process.has_tracker) {
      if (!mapped) mapped = now;
      // The emulator catches every real-time signal, so there the mask proves nothing.
      const bool settled = !starting || now - *mapped >= kEmulatedSettle;
      if (process.is_emulated ? settled : process.catches_signal) return process;
    }
    if (!starting) throw NotTracked(process);
    std::this_thread::sleep_for(kStartPoll);
  }
}

bool IsAlive(pid_t pid) {
  if (kill(pid, 0) != 0 && errno == ESRCH) return false;
  try {
    return !IsZombie(ReadProc(pid, "status"));
  } catch (const UserError&) {
    return false;
  }
}

bool RunsEmulated() {
  // The emulator answers /proc/self/exe with the guest's program, but not this alias.
  return LastPart(LinkTarget("/proc/thread-self/exe")).starts_with(kEmulatorPrefix);
}

Recording RecordingFromLog(std::string_view log) {
  Recording state = Recording::kNever;
  ForEachLine(log, '\n', [&](std::string_view line) {
    if (line.find("set hook to:true") != std::string_view::npos) state = Recording::kOn;
    if (line.find("set hook to:false") != std::string_view::npos) state = Recording::kPaused;
    // Stopping logs no line of its own, so the command word itself is read.
    const std::uint64_t word = ReceivedWord(line);
    if ((word & kNativeOn) != 0) state = Recording::kOn;
    if ((word & kNativePause) != 0) state = Recording::kPaused;
    if ((word & kNativeReport) != 0) state = Recording::kStopped;
    return true;
  });
  return state;
}

}  // namespace memleak
