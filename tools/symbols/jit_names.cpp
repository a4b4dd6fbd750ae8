// SPDX-License-Identifier: Apache-2.0
#include "tools/symbols/jit_names.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <filesystem>
#include <optional>
#include <string_view>
#include <system_error>

#include "tools/base/files.h"
#include "tools/base/proc_files.h"
#include "tools/base/rooted_file.h"

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

// The text of the file `name`; empty if it is unreadable.
std::string TextOfFile(const std::string& name) {
  const int file = open(name.c_str(), O_RDONLY | O_CLOEXEC);
  if (file < 0) return "";
  const std::optional<std::string> text = ReadAll(file);
  close(file);
  return text.value_or("");
}

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
    const std::string status = TextOfFile(directory + "/status");
    if (InnerPid(status, 0) != process.pid) continue;
    if (LinkTarget(directory + "/exe") != process.program) continue;
    const auto ticks = StartTicks(TextOfFile(directory + "/stat"));
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
  int file = -1;
  if (running) file = OpenInRoot(running->directory + "/root", path, kOpenFlags);
  const bool is_here = !running || running->directory == "/proc/" + std::to_string(process.pid);
  // The process has ended, or its root directory may not be entered.
  if (file < 0 && is_here && (!running || errno != ENOENT)) file = open(path.c_str(), kOpenFlags);
  if (file < 0) return "";
  struct stat state {};
  const uid_t user = running ? running->user : process.owner;
  std::optional<std::string> text;
  // A file with several names may be another one: users can link files that they cannot write.
  if (fstat(file, &state) == 0 && S_ISREG(state.st_mode) && state.st_nlink == 1 &&
      (state.st_uid == user || state.st_uid == 0 || state.st_uid == geteuid()) &&
      state.st_mtime >= process.started - kTolerance) {
    text = ReadAll(file);
  }
  close(file);
  return text.value_or("");
}

}  // namespace

JitNames::JitNames(const JitProcess& process) {
  const std::string text = ReadFile(process);
  std::string_view rest = text;
  while (!rest.empty()) {
    const std::string_view line = rest.substr(0, rest.find('\n'));
    rest.remove_prefix(std::min(line.size() + 1, rest.size()));
    // "BEGIN BYTES NAME", both in hexadecimal.
    std::uint64_t begin = 0;
    std::uint64_t bytes = 0;
    const char* const end = line.data() + line.size();
    const auto first = std::from_chars(line.data(), end, begin, 16);
    if (first.ec != std::errc() || first.ptr == end || *first.ptr != ' ') continue;
    const auto second = std::from_chars(first.ptr + 1, end, bytes, 16);
    if (second.ec != std::errc() || second.ptr == end || *second.ptr != ' ') continue;
    functions_[begin] = {begin + bytes, std::string(second.ptr + 1, end)};
  }
}

std::string JitNames::NameOf(std::uint64_t pc) const {
  auto after = functions_.upper_bound(pc);
  if (after == functions_.begin()) return "";
  const auto& [end, name] = std::prev(after)->second;
  return pc < end ? name : "";
}

}  // namespace memleak
