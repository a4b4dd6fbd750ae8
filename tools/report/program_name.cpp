// SPDX-License-Identifier: Apache-2.0
#include "tools/report/program_name.h"

#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string_view>
#include <system_error>
#include <vector>

#include "tools/base/files.h"

namespace memleak {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kNameCharacters =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._+-";

// The files that `word`, the first argument of a process with the executable `program`, can mean.
// The working directory and the variable PATH of the process are unknown.
std::vector<fs::path> Meanings(const std::string& word, const fs::path& program) {
  if (word.starts_with('/')) return {word};
  std::vector<fs::path> files = {program.parent_path() / LastPart(word)};
  const char* const variable = std::getenv("PATH");
  if (word.find('/') != std::string::npos || variable == nullptr) return files;
  std::istringstream directories(variable);
  for (std::string directory; std::getline(directories, directory, ':');) {
    files.push_back(fs::path(directory) / word);
  }
  return files;
}

}  // namespace

std::string ProgramName(const ProfileHead& head) {
  constexpr std::string_view kDeleted = " (deleted)";
  std::string program = head.program;
  if (program.ends_with(kDeleted)) program.resize(program.size() - kDeleted.size());
  std::string executable = LastPart(program);
  if (head.arguments.empty()) return executable;
  const std::string& word = head.arguments.front();
  std::string name = LastPart(word);
  // Not "-bash", a login shell.
  if (name.empty() || name.front() == '-' ||
      name.find_first_not_of(kNameCharacters) != std::string::npos) {
    return executable;
  }
  std::error_code error;
  if (!fs::exists(program, error)) return name;
  for (const fs::path& file : Meanings(word, program)) {
    if (fs::equivalent(file, program, error)) return name;
  }
  return executable;
}

}  // namespace memleak
