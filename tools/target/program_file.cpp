// SPDX-License-Identifier: Apache-2.0
#include "tools/target/program_file.h"

#include <elf.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "protocol/protocol.h"
#include "tools/base/files.h"
#include "tools/base/user_error.h"

namespace memleak {
namespace {

namespace fs = std::filesystem;

// The kernel follows at most this many nested script interpreters.
constexpr int kMaxScriptDepth = 5;

// The interpreter in the "#!" line of `path`, if there is one.
std::optional<std::string> ScriptInterpreter(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::string mark(2, '\0');
  file.read(mark.data(), 2);
  if (mark != "#!") return std::nullopt;
  std::string line;
  std::getline(file, line);
  std::istringstream words(line);
  std::string interpreter;
  if (!(words >> interpreter)) return std::nullopt;
  return interpreter;
}

std::string Locate(const std::string& name, const std::string& search_path) {
  if (name.empty()) throw UserError("no program given", "add -- PROGRAM ARGUMENTS");
  if (name.find('/') != std::string::npos) {
    if (!fs::exists(name)) throw UserError("program not found: " + name, "check the path");
    return name;
  }
  std::string not_executable;
  std::istringstream directories(search_path + ":");
  for (std::string directory; std::getline(directories, directory, ':');) {
    std::string path = (directory.empty() ? "." : directory) + "/" + name;
    std::error_code ignored;
    if (!fs::is_regular_file(path, ignored)) continue;
    if (access(path.c_str(), X_OK) == 0) return path;
    not_executable = path;
  }
  if (!not_executable.empty()) return not_executable;
  throw UserError("program not found in PATH: " + name, "give its path, or install it");
}

void CheckExecutable(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) {
    throw UserError("program not found: " + path + ": " + std::strerror(errno), "check the path");
  }
  if (!S_ISREG(status.st_mode)) {
    throw UserError("not a program: " + path, "give the path of an executable file");
  }
  if (access(path.c_str(), X_OK) != 0 || (status.st_mode & 0111) == 0) {
    throw UserError("program is not executable: " + path, "run: chmod +x " + path);
  }
}

// The dynamic linker ignores LD_PRELOAD for programs that gain privileges.
void CheckPrivileges(const std::string& path) {
  struct stat status {};
  const bool gains =
      (stat(path.c_str(), &status) == 0 && (status.st_mode & (S_ISUID | S_ISGID)) != 0) ||
      getxattr(path.c_str(), "security.capability", nullptr, 0) > 0;
  if (!gains) return;
  throw UserError("program is setuid or setgid, or has file capabilities: " + path +
                      " (the system preloads nothing into it)",
                  "run a copy without these: cp " + path + " .");
}

ElfInfo CheckImage(const std::string& path) {
  const std::optional<ElfInfo> info = ReadElf(path);
  if (!info) {
    throw UserError("not an ELF program: " + path, "give a program built for this system");
  }
  if (!info->is_64_bit || !info->is_little_endian ||
      (info->machine != EM_X86_64 && info->machine != EM_AARCH64)) {
    throw UserError("program is for another architecture: " + path + " is for " +
                        (info->is_64_bit ? "" : "32-bit ") + MachineName(info->machine),
                    "build it for x86-64 or aarch64");
  }
  if (info->type != ET_EXEC && info->type != ET_DYN) {
    throw UserError("not a program: " + path + " is an object or core file", "link it first");
  }
  if (info->interpreter.empty()) {
    throw UserError("program is static: " + path + " loads no libraries", "link it dynamically");
  }
  if (LastPart(info->interpreter).starts_with("ld-musl")) {
    throw UserError("program is for the C library musl: " + path + "; the tracker needs glibc",
                    "use a program built for glibc");
  }
  return *info;
}

}  // namespace

std::string FindExecutable(const std::string& name, const std::string& search_path) {
  std::string path = Locate(name, search_path);
  CheckExecutable(path);
  return path;
}

TargetProgram FindProgram(const std::string& name, const std::string& search_path) {
  TargetProgram program;
  program.path = FindExecutable(name, search_path);
  program.image_path = program.path;
  for (int depth = 0;; ++depth) {
    const std::optional<std::string> interpreter = ScriptInterpreter(program.image_path);
    if (!interpreter) break;
    if (depth == kMaxScriptDepth) {
      throw UserError("too many nested script interpreters: " + program.path,
                      "name a program in its first line");
    }
    program.is_script = true;
    program.image_path = *interpreter;
    CheckExecutable(program.image_path);
  }
  program.image = CheckImage(program.image_path);
  CheckPrivileges(program.image_path);
  return program;
}

std::string FindTrackerLibraries(const std::vector<std::string>& candidates,
                                 std::uint16_t machine) {
  for (const std::string& directory : candidates) {
    const std::optional<ElfInfo> tracker = ReadElf(directory + "/" + protocol::kTrackerLibrary);
    const std::optional<ElfInfo> preload = ReadElf(directory + "/" + protocol::kPreloadLibrary);
    const bool fits = tracker && preload && tracker->is_64_bit && preload->is_64_bit &&
                      tracker->machine == machine && preload->machine == machine;
    if (fits) return directory;
  }
  return "";
}

}  // namespace memleak
