// SPDX-License-Identifier: Apache-2.0
#include "tools/target/launcher.h"

#include <elf.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <sstream>

#include "protocol/private_files.h"
#include "protocol/protocol.h"
#include "tools/base/names.h"
#include "tools/base/user_error.h"
#include "tools/target/process_info.h"
#include "tools/target/program_file.h"
#include "tools/target/root_directory.h"

namespace memleak {
namespace {

namespace fs = std::filesystem;

constexpr const char* kPreloadVariable = "LD_PRELOAD";
constexpr const char* kBindNowVariable = "LD_BIND_NOW";
// Precedes the absolute path of the loader. Only glibc replaces $LIB, by a directory that it has
// itself, such as lib/x86_64-linux-gnu, so the whole is the path below "/". For children of the
// program that use musl there is no such file. They would not start with the loader.
constexpr const char* kGlibcOnly = "/$LIB/../../../..";

std::string Environment(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? "" : value;
}

std::vector<std::string> SplitWords(const std::string& text) {
  std::istringstream stream(text);
  std::vector<std::string> words;
  for (std::string word; stream >> word;) words.push_back(word);
  return words;
}

fs::path OwnDirectory() {
  std::error_code ignored;
  return fs::read_symlink("/proc/self/exe", ignored).parent_path();
}

// The directory of the controller, then those of a build tree, of an installation, and of the build
// trees of both presets.
std::vector<std::string> LibraryCandidates(const std::string& libdir) {
  if (!libdir.empty()) return {fs::absolute(libdir).lexically_normal().string()};
  const fs::path own = OwnDirectory();
  const fs::path prefix = own.parent_path();
  std::vector<std::string> candidates = {own.string(), (prefix / "lib").string(),
                                         (prefix / "lib" / "memleak").string()};
  if (!fs::exists(prefix / "CMakeCache.txt")) return candidates;
  for (const char* preset : {"native", "aarch64"}) {
    candidates.push_back((prefix.parent_path() / preset / "lib").string());
  }
  return candidates;
}

std::string Libraries(const RunOptions& options, std::uint16_t machine) {
  std::string libdir = FindLibraries(options.libdir, machine);
  // The dynamic linker splits its list at blanks and colons, the emulator at commas.
  const char* separators = options.emulator.empty() ? " :" : " :,";
  if (libdir.find_first_of(separators) != std::string::npos) {
    throw UserError("library directory has a blank, colon or comma in its name: " + libdir,
                    "copy the two libraries to another directory and name it with --libdir DIR");
  }
  return libdir;
}

void CheckArchitecture(const RunOptions& options, const TargetProgram& program) {
  const std::string machine = MachineName(program.image.machine);
  if (options.emulator.empty()) {
    if (program.image.machine == OwnMachine()) return;
    throw UserError("program is for another architecture: " + program.image_path + " is for " +
                        machine + ", this controller for " + MachineName(OwnMachine()),
                    program.image.machine == EM_AARCH64
                        ? "add --emulator 'qemu-aarch64 -L /'"
                        : "use the controller built for " + machine);
  }
  if (program.is_script) {
    throw UserError("an emulator cannot run a script: " + program.path,
                    "name its interpreter: " + program.image_path + " " + program.path);
  }
}

std::string PrependPreload(const std::string& library, const std::string& existing) {
  if (existing.empty()) return library;
  if ((":" + existing + ":").find(":" + library + ":") != std::string::npos) return existing;
  return library + ":" + existing;
}

void SetEnvironment(const char* name, const std::string& value) {
  setenv(name, value.c_str(), 1);
}

// A command for the tracker. One that is not wanted is removed: the controller itself may run under
// the tracker.
void SetCommand(const char* name, bool wanted, std::uint64_t word) {
  std::ostringstream text;
  text << "0x" << std::hex << word;
  if (wanted) SetEnvironment(name, text.str());
  if (!wanted) unsetenv(name);
}

/// What is executed.
struct CommandLine {
  std::string executable;
  std::vector<std::string> arguments;  ///< argv, program name included
};

// Sets the dynamic linker's variables, under an emulator those of the guest.
CommandLine Compose(const RunOptions& options, const TargetProgram& program,
                    const std::string& libdir) {
  const std::string preload = libdir + "/" + protocol::kPreloadLibrary;
  if (options.emulator.empty()) {
    SetEnvironment(kPreloadVariable,
                   PrependPreload(kGlibcOnly + preload, Environment(kPreloadVariable)));
    SetEnvironment(kBindNowVariable, "1");
    return {program.path, options.command};
  }
  CommandLine line;
  line.arguments = SplitWords(options.emulator);
  line.executable = FindExecutable(line.arguments.front(), Environment("PATH"));
  for (const std::string& word :
       {std::string("-E"), std::string(kPreloadVariable) + "=" + preload, std::string("-E"),
        std::string(kBindNowVariable) + "=1", program.path}) {
    line.arguments.push_back(word);
  }
  line.arguments.insert(line.arguments.end(), options.command.begin() + 1, options.command.end());
  return line;
}

// Returns `properties` with the names of what to hook. The libraries cannot be checked: the program
// has not loaded them yet.
std::string AddHooks(const RunOptions& options, const std::string& properties) {
  const HookNames names = NamesFor(options);
  if (options.kind->IsNative()) return properties;
  if (!options.start && !options.report_at_exit) {
    throw UserError("--kind needs --start or --report-at-exit",
                    "add one, or use memleak on PID --kind later");
  }
  if (options.WantsUnwinder()) std::cerr << "memleak: " << kNoUnwindTables << std::endl;
  return WithHooks(properties, names);
}

std::string Properties(const RunOptions& options, const TargetProgram& program,
                       const std::string& root) {
  BacktraceSettings settings = DefaultSettings(program.image.machine);
  settings.depth = options.depth.value_or(*settings.depth);
  settings.type = options.type.value_or(*settings.type);
  return AddHooks(options, UpdateProperties(ReadProperties(root).value_or(""), settings));
}

// The tracker runs without a log that it cannot open, and reports no error.
void CheckLog(const std::string& log) {
  protocol::Refusal refusal;
  const int file = protocol::OpenFile(AT_FDCWD, log.c_str(), protocol::Use::kAppend, refusal);
  if (file < 0) {
    throw UserError("log not writable: " + log + ": " + refusal.Reason(),
                    "name a file of your own in an existing directory with --log FILE");
  }
  close(file);
}

// Paths keep "%p" in the environment, so that each forked child gets its own.
std::string AbsolutePattern(const std::string& path) {
  return fs::absolute(path).lexically_normal().string();
}

void SetLog(const std::string& log) {
  if (log.empty()) return;
  const std::string pattern = log == "stderr" ? log : AbsolutePattern(log);
  SetEnvironment(protocol::kLogVariable, pattern);
  if (log != "stderr") CheckLog(ExpandPid(pattern, getpid()));
}

[[noreturn]] void Execute(const CommandLine& line) {
  std::vector<char*> arguments;
  for (const std::string& argument : line.arguments) {
    arguments.push_back(const_cast<char*>(argument.c_str()));
  }
  arguments.push_back(nullptr);
  execv(line.executable.c_str(), arguments.data());
  if (errno == ENOEXEC) {
    throw UserError("this system cannot run " + line.executable + ": " + std::strerror(errno),
                    "for an emulated program use --emulator, for a script add a #! line");
  }
  throw UserError("cannot run " + line.executable + ": " + std::strerror(errno),
                  "check the program's permissions and arguments");
}

}  // namespace

std::string FindLibraries(const std::string& libdir, std::uint16_t machine) {
  const std::vector<std::string> candidates = LibraryCandidates(libdir);
  std::string found = FindTrackerLibraries(candidates, machine);
  if (!found.empty()) return found;
  throw UserError("no " + std::string(protocol::kPreloadLibrary) + " and " +
                      protocol::kTrackerLibrary + " for " + MachineName(machine) + " in " +
                      Joined(candidates),
                  "name their directory with --libdir DIR");
}

void Launch(const RunOptions& options) {
  if (options.command.empty()) {
    throw UserError("no program given", "add -- PROGRAM ARGUMENTS, see memleak run --help");
  }
  const TargetProgram program = FindProgram(options.command.front(), Environment("PATH"));
  if (!options.emulator.empty() && SplitWords(options.emulator).empty()) {
    throw UserError("--emulator is blank", "give a command such as 'qemu-aarch64 -L /'");
  }
  CheckArchitecture(options, program);
  const CommandLine line = Compose(options, program, Libraries(options, program.image.machine));
  const std::string pattern = AbsolutePattern(options.root.empty() ? "memleak.%p" : options.root);
  const std::string root = ExpandPid(pattern, getpid());
  const std::string properties = Properties(options, program, root);

  SetEnvironment(protocol::kRootVariable, pattern);
  SetEnvironment(protocol::kPropertiesVariable, root + "/" + protocol::kPropertiesFile);
  SetCommand(protocol::kStartVariable, options.start, options.kind->On());
  SetCommand(protocol::kReportAtExitVariable, options.report_at_exit, options.kind->Report());
  WriteProperties(root, properties);
  SetLog(options.log);
  // A user at a terminal needs the PID. Otherwise only the program writes output.
  if (isatty(STDERR_FILENO) == 1) {
    std::cerr << "memleak: process " << getpid() << ", root directory " << Printable(root)
              << std::endl;
  }
  Execute(line);
}

}  // namespace memleak
