// Checks on programs and on the tracker's libraries; called by `run` before it becomes the program.
#include "tools/target/program_file.h"

#include <elf.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string_view>

#include "protocol/protocol.h"
#include "tools/base/user_error.h"

namespace memleak {
namespace {

namespace fs = std::filesystem;

// The kernel follows at most this many scripts that name scripts.
constexpr int kMaxScriptDepth = 5;
constexpr std::size_t kScriptLineBytes = 255;

std::string ReadStart(const std::string& path, std::size_t bytes) {
  std::ifstream file(path, std::ios::binary);
  std::string data(bytes, '\0');
  file.read(data.data(), static_cast<std::streamsize>(bytes));
  data.resize(static_cast<std::size_t>(file.gcount()));
  return data;
}

// The interpreter named by a "#!" line, or nothing.
std::optional<std::string> ScriptInterpreter(const std::string& path) {
  const std::string head = ReadStart(path, kScriptLineBytes);
  if (!head.starts_with("#!")) return std::nullopt;
  const std::string line = head.substr(2, head.find('\n') - 2);
  const std::size_t start = line.find_first_not_of(" \t");
  if (start == std::string::npos) return std::nullopt;
  return line.substr(start, line.find_first_of(" \t\r", start) - start);
}

std::string Locate(const std::string& name, const std::string& search_path) {
  if (name.empty()) throw UserError("no program given", "add -- PROGRAM ARGUMENTS");
  if (name.find('/') != std::string::npos) {
    if (!fs::exists(name)) throw UserError("program not found: " + name, "check the path");
    return name;
  }
  std::string not_executable;
  std::string_view rest = search_path;
  while (true) {
    const std::size_t colon = rest.find(':');
    const std::string directory(rest.substr(0, colon));
    std::string path = (directory.empty() ? "." : directory) + "/" + name;
    std::error_code ignored;
    if (fs::is_regular_file(path, ignored)) {
      if (access(path.c_str(), X_OK) == 0) return path;
      not_executable = path;
    }
    if (colon == std::string_view::npos) break;
    rest.remove_prefix(colon + 1);
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
    throw UserError("program is not executable: " + path, "make it so: chmod +x " + path);
  }
}

// The dynamic linker ignores LD_PRELOAD for programs that gain privileges.
void CheckPrivileges(const std::string& path) {
  struct stat status {};
  const bool set_id =
      stat(path.c_str(), &status) == 0 && (status.st_mode & (S_ISUID | S_ISGID)) != 0;
  if (set_id) {
    throw UserError("program is setuid or setgid: " + path + " (the system preloads nothing there)",
                    "run a copy without that bit: cp " + path + " .");
  }
  if (getxattr(path.c_str(), "security.capability", nullptr, 0) > 0) {
    throw UserError(
        "program has file capabilities: " + path + " (the system preloads nothing there)",
        "run a copy without them: cp " + path + " .");
  }
}

ElfInfo CheckImage(const std::string& path) {
  const std::optional<ElfInfo> info = ReadElf(path);
  if (!info) {
    throw UserError("not an ELF program: " + path, "give a program built for this system");
  }
  if (!info->is_64_bit) {
    throw UserError("program is 32-bit: " + path, "build it for 64 bits (x86-64 or aarch64)");
  }
  if (!info->is_little_endian || (info->machine != EM_X86_64 && info->machine != EM_AARCH64)) {
    throw UserError(
        "program is for another architecture: " + path + " is for " + MachineName(info->machine),
        "build it for x86-64 or aarch64");
  }
  if (info->type != ET_EXEC && info->type != ET_DYN) {
    throw UserError("not a program: " + path + " is an object or core file", "link it first");
  }
  if (!info->has_interpreter) {
    throw UserError("program is static: " + path + " loads no libraries", "link it dynamically");
  }
  return *info;
}

}  // namespace

std::string FindExecutable(const std::string& name, const std::string& search_path) {
  std::string path = Locate(name, search_path);
  CheckExecutable(path);
  return path;
}

Program FindProgram(const std::string& name, const std::string& search_path) {
  Program program;
  program.path = FindExecutable(name, search_path);
  program.image_path = program.path;
  for (int depth = 0;; ++depth) {
    const std::optional<std::string> interpreter = ScriptInterpreter(program.image_path);
    if (!interpreter) break;
    if (depth == kMaxScriptDepth) {
      throw UserError("script names scripts as its interpreter without end: " + program.path,
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
