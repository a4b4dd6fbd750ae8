// The command line of what steers a process, the same at a desk and on a device: on, pause, report,
// clear, libs, fd, send, status. Called by the two programs' main alone.
#pragma once

#include <CLI/CLI.hpp>

#include <sys/types.h>

#include <string>

#include "tools/base/control.h"
#include "tools/commands/command_line.h"
#include "tools/commands/commands.h"

namespace memleak {

/// Everything that these commands can set.
struct ControlOptions {
  OnOptions on;
  ReportOptions report;
  FdOptions fd;
  SendOptions send;
  // Numbers as they were given: the library's own messages about them name neither what is wanted
  // nor what to do.
  std::string pid;
  std::string depth;
  std::string timeout;
  std::string unwind;
  std::string kind;
  std::string libraries;
  std::string functions;
  std::string word;
  std::string parameter = "0";
};

/// The help texts that differ between the editions; the others are those of help_texts.h.
struct ControlTexts {
  const char* on;
  const char* report;
  const char* status;
};

/// Adds all of these commands to `app`. `options` must live as long as that.
void AddControlCommands(CLI::App* app, const ControlTexts& texts, ControlOptions* options);
/// Carries out the one that was chosen and returns the exit code. Throws UserError.
int DispatchControl(const CLI::App& command, ControlOptions* options);

/// Parts that other commands use too.
CLI::App* AddPidCommand(CLI::App* app, const char* name, const char* summary, const char* text,
                        ControlOptions* options);
void AddBacktraceOptions(CLI::App* command, ControlOptions* options);
void AddHookOptions(CLI::App* command, ControlOptions* options);

/// The process id that was given. Throws UserError.
pid_t ChosenPid(const ControlOptions& options);
/// The kind asked for; native without the option, and for commands that do not have it.
Kind ChosenKind(const ControlOptions& options);
/// The frames per allocation that were asked for, if any. Throws UserError.
std::optional<std::uint32_t> ChosenDepth(const CLI::App& command, const ControlOptions& options);
/// The value of "--lib" or "--func"; given without a name it is told apart from not given. Throws
/// UserError.
std::string NameList(const CLI::App& command, const char* option, const std::string& value);

/// Puts what was asked for into the options of a command. Throw UserError.
template <typename Target>
void CopyHookOptions(const CLI::App& command, const ControlOptions& options, Target* target) {
  target->kind = ChosenKind(options);
  target->libraries = NameList(command, "--lib", options.libraries);
  target->functions = NameList(command, "--func", options.functions);
}

template <typename Target>
void CopyBacktraceOptions(const CLI::App& command, const ControlOptions& options, Target* target) {
  target->depth = ChosenDepth(command, options);
  if (command.count("--unwind") != 0) {
    target->type = options.unwind == "fp" ? kUnwindFramePointers : kUnwindTables;
  }
}

}  // namespace memleak
