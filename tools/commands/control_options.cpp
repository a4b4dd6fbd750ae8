// Options and dispatch of the commands that steer a process.
#include "tools/commands/control_options.h"

#include <limits>

#include "tools/base/user_error.h"
#include "tools/commands/help_texts.h"
#include "tools/target/kinds.h"
#include "tools/target/site.h"

namespace memleak {
namespace {

constexpr NumberKind kDepthKind = {"a number of frames from 1 to 65535", 1, kMaxDepth,
                                   "give one such as 24"};
constexpr NumberKind kWordKind = {"a number in range", 0, kMost64, "give one such as 0x90"};
constexpr NumberKind kParameterKind = {"a number in range", 0, kMost32, "give one such as 0xa0031"};

void AddKindOption(CLI::App* command, ControlOptions* options) {
  command->add_option("--kind", options->kind, "What is recorded: native (default), mmap, ion, gpu")
      ->option_text("KIND");
}

int DispatchReport(const CLI::App& command, pid_t pid, ControlOptions* options) {
  options->report.pid = pid;
  options->report.kind = ChosenKind(*options);
  if (command.count("--timeout") != 0) {
    options->report.timeout_s = ParseNumber32("--timeout", options->timeout, kTimeoutKind);
  }
  if (options->report.keep_recording && options->report.kind != Kind::kNative) {
    throw UserError(
        "--keep-recording is not for --kind " + options->kind + ": its report takes the hooks away",
        "leave out one of them");
  }
  return ReportCommand(options->report);
}

}  // namespace

CLI::App* AddPidCommand(CLI::App* app, const char* name, const char* summary, const char* text,
                        ControlOptions* options) {
  CLI::App* command = AddCommand(app, name, summary, text);
  command->add_option("PID", options->pid, "Process id")->required()->option_text(" ");
  return command;
}

void AddBacktraceOptions(CLI::App* command, ControlOptions* options) {
  command->add_option("--depth", options->depth, "Frames kept per allocation")->option_text("N");
  command
      ->add_option("--unwind", options->unwind,
                   "By frame pointers (aarch64's default) or\n"
                   "unwind tables (x86-64's)")
      ->check(CLI::IsMember({"fp", "dwarf"}))
      ->option_text("fp|dwarf");
}

void AddHookOptions(CLI::App* command, ControlOptions* options) {
  AddKindOption(command, options);
  command
      ->add_option("--lib", options->libraries,
                   "Libraries to be hooked, for --kind mmap;\n"
                   "ion and gpu have their own")
      ->option_text("NAME,...");
  command
      ->add_option("--func", options->functions,
                   "Functions to be hooked in them (mmap,mmap64,\n"
                   "munmap,mremap; for ion and gpu ioctl)")
      ->option_text("NAME,...");
}

void AddControlCommands(CLI::App* app, const ControlTexts& texts, ControlOptions* options) {
  CLI::App* on = AddPidCommand(app, "on", "Start recording", texts.on, options);
  on->add_flag("--keep", options->on.keep, "Keep what is recorded already");
  AddHookOptions(on, options);
  AddBacktraceOptions(on, options);
  AddKindOption(
      AddPidCommand(app, "pause", "Record nothing new for a while", help::kPause, options),
      options);
  CLI::App* report =
      AddPidCommand(app, "report", "Stop recording and write a report", texts.report, options);
  AddKindOption(report, options);
  report
      ->add_option("--timeout", options->timeout,
                   "Seconds to wait for the report (60); 0: without end")
      ->option_text("SECONDS");
  report->add_flag("--keep-recording", options->report.keep_recording,
                   "Go on recording; of the native heap alone");
  AddKindOption(
      AddPidCommand(app, "clear", "Drop everything recorded so far", help::kClear, options),
      options);
  AddPidCommand(app, "libs", "List what could be hooked", help::kLibs, options);
  CLI::App* fd = AddCommand(app, "fd", "Track file descriptors", help::kFd);
  fd->add_option("ACTION", options->fd.action, "on, off, dump or clear")
      ->required()
      ->option_text(" ");
  fd->add_option("PID", options->pid, "Process id")->required()->option_text(" ");
  fd->add_option("--depth", options->depth, "Frames kept, with on")->option_text("N");
  CLI::App* send = AddPidCommand(app, "send", "Send a control word", help::kSend, options);
  send->add_option("--word", options->word, "Control word")->required()->option_text("WORD");
  send->add_option("--parameter", options->parameter, "Parameter word (0)")->option_text("WORD");
  AddPidCommand(app, "status", "Say what is known of a process", texts.status, options);
}

pid_t ChosenPid(const ControlOptions& options) {
  const std::string remedy = std::string("find it with: ") + Advice().find_pid;
  const NumberKind kind = {"a process id", 1, std::numeric_limits<pid_t>::max(), remedy.c_str()};
  return static_cast<pid_t>(ParseNumber("PID", options.pid, kind));
}

Kind ChosenKind(const ControlOptions& options) {
  return options.kind.empty() ? Kind::kNative : ParseKind(options.kind);
}

std::optional<std::uint32_t> ChosenDepth(const CLI::App& command, const ControlOptions& options) {
  if (command.count("--depth") == 0) return std::nullopt;
  return ParseNumber32("--depth", options.depth, kDepthKind);
}

std::string NameList(const CLI::App& command, const char* option, const std::string& value) {
  if (command.count(option) != 0) ParseNames(option, value);
  return value;
}

int DispatchControl(const CLI::App& command, ControlOptions* options) {
  const std::string& name = command.get_name();
  const pid_t pid = ChosenPid(*options);
  if (name == "on") {
    options->on.pid = pid;
    CopyHookOptions(command, *options, &options->on);
    CopyBacktraceOptions(command, *options, &options->on);
    return OnCommand(options->on);
  }
  if (name == "report") return DispatchReport(command, pid, options);
  if (name == "send") {
    options->send = {pid, ParseNumber("--word", options->word, kWordKind),
                     ParseNumber32("--parameter", options->parameter, kParameterKind)};
    return SendWordCommand(options->send);
  }
  if (name == "fd") {
    options->fd.pid = pid;
    options->fd.depth = ChosenDepth(command, *options);
    return FdCommand(options->fd);
  }
  if (name == "pause") return PauseCommand(pid, ChosenKind(*options));
  if (name == "clear") return ClearCommand(pid, ChosenKind(*options));
  if (name == "libs") return LibsCommand(pid);
  return StatusCommand(pid);
}

}  // namespace memleak
