// SPDX-License-Identifier: Apache-2.0
// Reads a growing log.
#include "tools/target/log_tail.h"

#include <charconv>
#include <fstream>
#include <sstream>

#include "protocol/kinds.h"
#include "tools/target/report_file.h"

namespace memleak {
namespace {

// A line starts "SECONDS.MILLISECONDS PID THREAD PRIORITY ". Returns the process, or 0.
pid_t ProcessOf(const std::string& line) {
  std::istringstream fields(line);
  std::string time;
  std::string pid;
  fields >> time >> pid;
  pid_t value = 0;
  const auto result = std::from_chars(pid.data(), pid.data() + pid.size(), value);
  return result.ec == std::errc() && result.ptr == pid.data() + pid.size() ? value : 0;
}

}  // namespace

LogTail::LogTail(const ProcessInfo& process) : path_(process.log), pid_(process.pid) {
  if (path_.empty()) return;
  // The tracker creates it with its first line, and again after it was removed.
  const std::optional<FileState> state = StateOf(path_);
  if (state) start_ = static_cast<std::uint64_t>(state->size);
  readable_ = !state || std::ifstream(path_).good();
}

std::vector<std::string> LogTail::Lines() const {
  std::vector<std::string> lines;
  if (!readable_) return lines;
  std::ifstream file(path_, std::ios::binary);
  const std::optional<FileState> state = StateOf(path_);
  // A shorter file was truncated or replaced.
  const bool grown = state && static_cast<std::uint64_t>(state->size) >= start_;
  file.seekg(static_cast<std::streamoff>(grown ? start_ : 0));
  for (std::string line; std::getline(file, line) && !file.eof();) {
    const pid_t process = ProcessOf(line);
    if (process == 0 || process == pid_) lines.push_back(line);
  }
  return lines;
}

std::optional<std::string> OwnLog(const ProcessInfo& process) {
  if (process.log.empty()) return std::nullopt;
  std::ifstream file(process.log, std::ios::binary);
  if (!file) return std::nullopt;
  std::string text;
  for (std::string line; std::getline(file, line);) {
    const pid_t writer = ProcessOf(line);
    if (writer == 0 || writer == process.pid) text += line + "\n";
  }
  return text;
}

std::uint64_t ReceivedWord(std::string_view line) {
  constexpr std::string_view kAddress = ";addr:0x";
  const std::size_t address = line.find(kAddress);
  std::uint64_t word = 0;
  if (line.find("received_sig ") == std::string_view::npos || address == std::string_view::npos) {
    return word;
  }
  const std::string_view digits = line.substr(address + kAddress.size());
  std::from_chars(digits.data(), digits.data() + digits.size(), word, 16);
  return word;
}

Recording RecordingFromLog(std::string_view log) {
  const std::string switched = protocol::kNative.switch_line;
  Recording state = Recording::kNever;
  std::istringstream lines{std::string(log)};
  for (std::string line; std::getline(lines, line);) {
    if (line.find(switched + "true") != std::string::npos) state = Recording::kOn;
    if (line.find(switched + "false") != std::string::npos) state = Recording::kPaused;
    // A stop has no separate log line, so the command word is read.
    const std::uint64_t word = ReceivedWord(line);
    if ((word & protocol::kNative.On()) != 0) state = Recording::kOn;
    if ((word & protocol::kNative.Pause()) != 0) state = Recording::kPaused;
    if ((word & protocol::kNative.Report()) != 0) state = Recording::kStopped;
  }
  return state;
}

}  // namespace memleak
