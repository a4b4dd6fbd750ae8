// SPDX-License-Identifier: Apache-2.0
#include "tools/target/task_status.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <thread>

#include "tools/base/files.h"
#include "tools/base/proc_files.h"

namespace memleak {
namespace {

constexpr std::chrono::milliseconds kLastingCall(100);

// By thread id. Those that have ended are missing.
std::map<pid_t, std::string> Statuses(pid_t pid) {
  std::map<pid_t, std::string> statuses;
  std::error_code error;
  for (const auto& task :
       std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task", error)) {
    if (auto status = ReadTextFile(task.path() / "status")) {
      statuses[std::atoi(task.path().filename().c_str())] = *std::move(status);
    }
  }
  return statuses;
}

std::uint64_t SignalSet(const std::string& status, const char* field) {
  return std::strtoull(StatusField(status, field).c_str(), nullptr, 16);
}

std::uint64_t PendingSignals(const std::string& status) {
  return SignalSet(status, "SigPnd") | SignalSet(status, "ShdPnd");
}

bool IsInState(const std::string& status, char state) {
  return StatusField(status, "State").starts_with(state);
}

}  // namespace

std::string ProgramOf(pid_t pid) {
  // It has random addresses.
  return ReadTextFile("/proc/" + std::to_string(pid) + "/auxv").value_or("");
}

bool HasExecuted(pid_t pid, const std::string& program) {
  const std::string now = ProgramOf(pid);
  return !now.empty() && now != program;
}

bool HasThreadInState(pid_t pid, char state) {
  const auto statuses = Statuses(pid);
  return std::any_of(statuses.begin(), statuses.end(),
                     [&](const auto& thread) { return IsInState(thread.second, state); });
}

bool IsPending(pid_t pid, int signal) {
  const auto statuses = Statuses(pid);
  return std::any_of(statuses.begin(), statuses.end(), [&](const auto& thread) {
    return (PendingSignals(thread.second) >> (signal - 1) & 1) != 0;
  });
}

bool IsBlocked(pid_t pid, int signal) {
  const auto statuses = Statuses(pid);
  return std::all_of(statuses.begin(), statuses.end(), [&](const auto& thread) {
    return (SignalSet(thread.second, "SigBlk") >> (signal - 1) & 1) != 0;
  });
}

bool HasDeliverableSignal(pid_t pid) {
  const auto statuses = Statuses(pid);
  return std::any_of(statuses.begin(), statuses.end(), [&](const auto& thread) {
    return (PendingSignals(thread.second) & ~SignalSet(thread.second, "SigBlk")) != 0;
  });
}

std::optional<pid_t> UnstoppableThread(pid_t pid) {
  const char* const kSwitches = "voluntary_ctxt_switches";  // counts the calls that wait
  std::map<pid_t, std::string> before;
  for (const auto& [id, status] : Statuses(pid)) {
    if (IsInState(status, 'D')) before[id] = StatusField(status, kSwitches);
  }
  if (before.empty()) return std::nullopt;
  std::this_thread::sleep_for(kLastingCall);
  for (const auto& [id, status] : Statuses(pid)) {
    const auto same = before.find(id);
    if (same != before.end() && IsInState(status, 'D') &&
        StatusField(status, kSwitches) == same->second) {
      return id;
    }
  }
  return std::nullopt;
}

unsigned SeccompFilters(pid_t pid) {
  unsigned most = 0;
  for (const auto& [id, status] : Statuses(pid)) {
    // Linux 5.9 counts the filters.
    const std::string count = StatusField(status, "Seccomp_filters");
    const unsigned has_some = std::atoi(StatusField(status, "Seccomp").c_str()) != 0 ? 1 : 0;
    most =
        std::max(most, count.empty() ? has_some : static_cast<unsigned>(std::atoi(count.c_str())));
  }
  return most;
}

std::vector<pid_t> ChildrenOf(pid_t pid) {
  std::vector<pid_t> children;
  std::error_code error;
  for (const std::filesystem::directory_entry& task :
       std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task", error)) {
    std::ifstream file(task.path() / "children");
    for (pid_t child = 0; file >> child;) children.push_back(child);
  }
  return children;
}

}  // namespace memleak
