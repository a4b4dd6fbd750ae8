// `memleak run`: from the options to the program's process image.
#include "tools/target/launcher.h"

#include <elf.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sstream>

#include "protocol/private_files.h"
#include "protocol/protocol.h"
#include "tools/base/user_error.h"
#include "tools/target/elf_info.h"
#include "tools/target/process_info.h"
#include "tools/target/program_file.h"
#include "tools/target/root_directory.h"

namespace memleak {
namespace {

namespace fs = std::filesystem;

constexpr const char* kPreloadVariable = "LD_PRELOAD";
constexpr const char* kBindNowVariable = "LD_BIND_NOW";

std::string Hex(std::uint64_t value) {
  std::ostringstream text;
  text << "0x" << std::hex << value;
  return text.str();
}

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

bool IsBuildTree(const fs::path& directory) {
  std::error_code ignored;
  return fs::exists(directory / "CMakeCache.txt", ignored);
}

// Beside the controller, in a build tree, in an installation, and in the other preset of a build
// tree.
std::vector<std::string> LibraryCandidates(const std::string& libdir) {
  if (!libdir.empty()) return {fs::absolute(libdir).lexically_normal().string()};
  const fs::path own = OwnDirectory();
  const fs::path prefix = own.parent_path();
  std::vector<std::string> candidates = {own.string(), (prefix / "lib").string(),
                                         (prefix / "lib" / "memleak").string()};
  if (!IsBuildTree(prefix)) return candidates;
  for (const char* preset : {"native", "aarch64"}) {
    candidates.push_back((prefix.parent_path() / preset / "lib").string());
  }
  return candidates;
}

std::string LibrariesRemedy(const std::string& libdir, std::uint16_t machine) {
  if (!libdir.empty()) return "name the directory that holds them with --libdir DIR";
  if (!IsBuildTree(OwnDirectory().parent_path())) {
    return "say where they are with --libdir DIR";
  }
  const std::string preset = machine == EM_AARCH64 ? "aarch64" : "native";
  return "build them in the source directory: cmake --preset " + preset +
         " && cmake --build --preset " + preset;
}

std::string Libraries(const RunOptions& options, std::uint16_t machine) {
  const std::vector<std::string> candidates = LibraryCandidates(options.libdir);
  std::string libdir = FindTrackerLibraries(candidates, machine);
  if (libdir.empty()) {
    std::string searched;
    for (const std::string& candidate : candidates) {
      searched += (searched.empty() ? "" : ", ") + candidate;
    }
    throw UserError("no " + std::string(protocol::kPreloadLibrary) + " and " +
                        protocol::kTrackerLibrary + " for " + MachineName(machine) + " in " +
                        searched,
                    LibrariesRemedy(options.libdir, machine));
  }
  // The dynamic linker splits its list at blanks and colons, the emulator its own at commas.
  const char* separators = options.emulator.empty() ? " :" : " :,";
  if (libdir.find_first_of(separators) != std::string::npos) {
    throw UserError("library directory has a blank, colon or comma in its name: " + libdir,
                    "copy the two libraries to a plainer place and name it with --libdir DIR");
  }
  return libdir;
}

void CheckArchitecture(const RunOptions& options, const Program& program) {
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
  const std::string emulator = fs::path(SplitWords(options.emulator).front()).filename().string();
  const std::uint16_t expected = emulator.starts_with("qemu-aarch64")  ? std::uint16_t{EM_AARCH64}
                                 : emulator.starts_with("qemu-x86_64") ? std::uint16_t{EM_X86_64}
                                                                       : program.image.machine;
  if (expected != program.image.machine) {
    throw UserError("program is for another architecture: " + program.path + " is for " + machine +
                        ", the emulator is " + emulator,
                    "leave out --emulator, or name the one for " + machine);
  }
}

std::string PrependPreload(const std::string& library, const std::string& existing) {
  if (existing.empty()) return library;
  if ((":" + existing + ":").find(":" + library + ":") != std::string::npos) return existing;
  return library + ":" + existing;
}

// Command line and linker settings; under an emulator the latter are for the guest alone.
void ComposeCommand(const RunOptions& options, const Program& program, const std::string& libdir,
                    LaunchPlan* plan) {
  const std::string preload = libdir + "/" + protocol::kPreloadLibrary;
  if (options.emulator.empty()) {
    plan->executable = program.path;
    plan->arguments = options.command;
    const std::string list = PrependPreload(preload, Environment(kPreloadVariable));
    plan->environment.push_back({kPreloadVariable, list});
    plan->environment.push_back({kBindNowVariable, "1"});
    return;
  }
  plan->arguments = SplitWords(options.emulator);
  const std::string guest_preload = std::string(kPreloadVariable) + "=" + preload;
  const std::string guest_bind_now = std::string(kBindNowVariable) + "=1";
  plan->executable = plan->arguments.front();
  for (const std::string& word :
       {std::string("-E"), guest_preload, std::string("-E"), guest_bind_now, program.path}) {
    plan->arguments.push_back(word);
  }
  plan->arguments.insert(plan->arguments.end(), options.command.begin() + 1, options.command.end());
}

// The libraries to be hooked cannot be looked at yet: the program has not loaded them.
void ComposeHooks(const RunOptions& options, LaunchPlan* plan) {
  const HookNames names = NamesFor(*options.kind, options.libraries, options.functions);
  if (options.kind->IsNative()) return;
  if (!options.start && !options.report_at_exit) {
    throw UserError("--kind goes with --start or --report-at-exit",
                    "add one, or give it to memleak on PID later");
  }
  if (options.type.value_or(protocol::kUnwindFramePointers) != protocol::kUnwindFramePointers) {
    plan->note = kNoUnwindTables;
  }
  plan->properties = WithHooks(plan->properties, names);
}

void ComposeSettings(const RunOptions& options, const Program& program, LaunchPlan* plan) {
  // Kept with "%p" in the environment, so that forked children get places of their own.
  const std::string pattern =
      fs::absolute(options.root.empty() ? "memleak.%p" : options.root).lexically_normal().string();
  plan->root = ExpandPid(pattern, getpid());
  const std::string properties = (fs::path(plan->root) / protocol::kPropertiesFile).string();

  BacktraceSettings settings;
  // x86-64 system libraries keep no frame pointers.
  settings.type =
      options.type.value_or(program.image.machine == EM_AARCH64 ? protocol::kUnwindFramePointers
                                                                : protocol::kUnwindTables);
  settings.depth = options.depth.value_or(protocol::kDefaultDepth);
  plan->properties = UpdateProperties(ReadProperties(plan->root).value_or(""), settings);
  ComposeHooks(options, plan);

  // Absent values are removed: the caller may itself run under the tracker.
  const auto command = [](bool wanted, std::uint64_t word) {
    return wanted ? std::optional<std::string>(Hex(word)) : std::nullopt;
  };
  plan->environment.push_back({protocol::kRootVariable, pattern});
  plan->environment.push_back({protocol::kPropertiesVariable, properties});
  plan->environment.push_back(
      {protocol::kStartVariable, command(options.start, options.kind->On())});
  plan->environment.push_back(
      {protocol::kReportAtExitVariable, command(options.report_at_exit, options.kind->Report())});
  if (!options.log.empty()) {
    const std::string log =
        options.log == "stderr" ? options.log : fs::absolute(options.log).string();
    plan->environment.push_back({protocol::kLogVariable, log});
    if (log != "stderr") plan->log = ExpandPid(log, getpid());
  }
}

// The tracker does without a log that it cannot open, and says nothing.
void CheckLog(const std::string& log) {
  protocol::Refusal refusal;
  const int file = protocol::OpenFile(AT_FDCWD, log.c_str(), protocol::Use::kAppend, refusal);
  if (file < 0) {
    throw UserError("log not writable: " + log + ": " + refusal.Reason(),
                    "name a file of your own, in a directory that is there, with --log FILE");
  }
  close(file);
}

}  // namespace

LaunchPlan PlanLaunch(const RunOptions& options) {
  if (options.command.empty()) {
    throw UserError("no program given", "add -- PROGRAM ARGUMENTS, see memleak run --help");
  }
  const std::string search_path = Environment("PATH");
  const Program program = FindProgram(options.command.front(), search_path);
  LaunchPlan plan;
  if (!options.emulator.empty() && SplitWords(options.emulator).empty()) {
    throw UserError("--emulator is blank", "give a command such as 'qemu-aarch64 -L /'");
  }
  CheckArchitecture(options, program);
  ComposeCommand(options, program, Libraries(options, program.image.machine), &plan);
  if (!options.emulator.empty()) plan.executable = FindExecutable(plan.executable, search_path);
  ComposeSettings(options, program, &plan);
  return plan;
}

void Launch(const LaunchPlan& plan) {
  WriteProperties(plan.root, plan.properties);
  if (!plan.log.empty()) CheckLog(plan.log);
  for (const EnvironmentChange& change : plan.environment) {
    if (change.value) {
      setenv(change.name.c_str(), change.value->c_str(), 1);
    } else {
      unsetenv(change.name.c_str());
    }
  }
  std::vector<char*> arguments;
  for (const std::string& argument : plan.arguments) {
    arguments.push_back(const_cast<char*>(argument.c_str()));
  }
  arguments.push_back(nullptr);
  execv(plan.executable.c_str(), arguments.data());
  if (errno == ENOEXEC) {
    throw UserError("this system cannot run " + plan.executable + ": " + std::strerror(errno),
                    "for an emulated program use --emulator, for a script add a #! line");
  }
  throw UserError("cannot run " + plan.executable + ": " + std::strerror(errno),
                  "check the program's permissions and arguments");
}

}  // namespace memleak
