// SPDX-License-Identifier: Apache-2.0
#include "tools/symbols/jit_names.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <optional>
#include <system_error>

#include "tools/base/files.h"
#include "tools/base/proc_files.h"
#include "tools/base/text_reader.h"

namespace memleak {
namespace {

// A pipe must not block.
constexpr int kOpenFlags = O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC;
constexpr std::int64_t kSecondNs = 1'000'000'000;
// Tolerance of times in seconds. The clock may be adjusted meanwhile.
constexpr std::int64_t kTolerance = 1;

/// A running process.
struct Running {
  std::string directory;     // "/proc/PID"
  std::int64_t started = 0;  // seconds since the epoch
  uid_t user = 0;
};

std::int64_t Nanoseconds(clockid_t clock) {
  timespec time{};
  clock_gettime(clock, &time);
  return std::int64_t{time.tv_sec} * kSecondNs + time.tv_nsec;
}

// Seconds since the epoch of a time in clock ticks since the system started.
std::int64_t TimeOf(std::uint64_t ticks) {
  const std::int64_t time = static_cast<std::int64_t>(ticks) * (kSecondNs / sysconf(_SC_CLK_TCK));
  return (Nanoseconds(CLOCK_REALTIME) - Nanoseconds(CLOCK_BOOTTIME) + time) / kSecondNs;
}

// The running process that `process` describes. Processes in several PID namespaces may have its
// pid and its program. The profile names the start of the process.
std::optional<Running> Find(const JitProcess& process) {
  std::optional<Running> found;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator("/proc", error)) {
    const std::string directory = entry.path();
    const std::string status = ReadTextFile(directory + "/status").value_or("");
    if (InnerPid(status, 0) != process.pid) continue;
    if (LinkTarget(directory + "/exe") != process.program) continue;
    const auto ticks = StartTicks(ReadTextFile(directory + "/stat").value_or(""));
    if (!ticks || TimeOf(*ticks) > process.started + kTolerance) continue;
    const Running running{directory, TimeOf(*ticks), EffectiveId(status, "Uid")};
    if (!found || running.started > found->started) found = running;
  }
  return found;
}

// The text of the file of names; empty if there is none that counts.
std::string ReadFile(const JitProcess& process) {
  const std::string path = "/tmp/perf-" + std::to_string(process.pid) + ".map";
  const std::optional<Running> running = Find(process);
  Descriptor file;
  if (running) file = OpenInRoot(running->directory + "/root", path, kOpenFlags);
  const bool is_here = !running || running->directory == "/proc/" + std::to_string(process.pid);
  // The process has ended, or its root directory may not be entered.
  if (!file.IsOpen() && is_here && (!running || errno != ENOENT)) {
    file = Descriptor(open(path.c_str(), kOpenFlags));
  }
  struct stat state {};
  const uid_t user = running ? running->user : process.owner;
  // A file with several names may be another one: users can link files that they cannot write.
  if (fstat(file.Number(), &state) == 0 && S_ISREG(state.st_mode) && state.st_nlink == 1 &&
      (state.st_uid == user || state.st_uid == 0 || state.st_uid == geteuid()) &&
      state.st_mtime >= process.started - kTolerance) {
    return ReadAll(file).value_or("");
  }
  return "";
}

}  // namespace

JitNames::JitNames(const JitProcess& process) {
  const std::string text = ReadFile(process);
  for (Cursor rest(text); !rest.AtEnd();) {
    Cursor line(rest.TakeUntil('\n'));
    // "BEGIN BYTES NAME", both in hexadecimal.
    std::uint64_t begin = 0;
    std::uint64_t bytes = 0;
    if (line.TakeNumber(&begin, 16) && line.Take(" ") && line.TakeNumber(&bytes, 16) &&
        line.Take(" ")) {
      functions_[begin] = {begin + bytes, std::string(line.Rest())};
    }
  }
}

std::string JitNames::NameOf(std::uint64_t pc) const {
  auto after = functions_.upper_bound(pc);
  if (after == functions_.begin()) return "";
  const auto& [end, name] = std::prev(after)->second;
  return pc < end ? name : "";
}

}  // namespace memleak
