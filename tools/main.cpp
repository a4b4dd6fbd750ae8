// The program `memleak`: its command line, as a table of subcommands. Everything a person did wrong
// ends here, as one line and exit code 2; so does what goes wrong by itself, so that 1 is an
// answer.
#include <CLI/CLI.hpp>

#include <algorithm>
#include <array>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tools/base/user_error.h"
#include "tools/commands/command_line.h"
#include "tools/commands/commands.h"
#include "tools/commands/control_options.h"
#include "tools/commands/help_texts.h"
#include "tools/commands/watch.h"

namespace memleak {
namespace {

/// Everything the command line can set.
struct Options {
  RunOptions run;
  ControlOptions control;
  ShowOptions show;
  WatchOptions watch;
  HtmlOptions html;
  DiffOptions diff;
  ExportOptions exported;
  // Numbers as they were given.
  std::string top;
  std::string by = "group";
  std::string sort = "total";
  std::string min_size;
  std::string older_than;
  std::string every;
  std::string duration;
  std::string fail_over;
};

constexpr NumberKind kTopKind = {"a number of groups", 0, kMost32,
                                 "give one such as 20, or 0 for all"};
constexpr NumberKind kBytesKind = {"a number of bytes", 0, kMost64, "give one such as 4096 or 64k"};
constexpr NumberKind kAgeKind = {"an age", 0, kMost32, "give one such as 90s, 10m, 2h or 1d"};
constexpr NumberKind kEveryKind = {"a time of at least a second", 1, kMost32,
                                   "give one such as 30s, 5m or 1h"};
constexpr NumberKind kForKind = {"a time", 0, kMost32,
                                 "give one such as 10m or 2h, or 0 for no end"};
// What a letter behind a number multiplies it by.
struct Unit {
  char letter;
  std::uint64_t factor;
};
constexpr std::array kByteUnits = {Unit{'k', 1U << 10U}, Unit{'m', 1U << 20U},
                                   Unit{'g', 1U << 30U}};
constexpr std::array kAgeUnits = {Unit{'s', 1}, Unit{'m', 60}, Unit{'h', 3600}, Unit{'d', 86400}};

// A number with one of `units` behind it, or none.
template <typename Units>
std::uint64_t ParseWithUnit(const std::string& name, const std::string& text,
                            const NumberKind& kind, const Units& units) {
  const char last = text.empty() ? '\0' : static_cast<char>(text.back() | 0x20);
  const auto unit = std::find_if(units.begin(), units.end(),
                                 [&](const Unit& candidate) { return candidate.letter == last; });
  if (unit == units.end()) return ParseNumber(name, text, kind);
  const auto number = ReadNumber(text.substr(0, text.size() - 1));
  if (!number || *number < kind.least || *number > kind.most / unit->factor) {
    RefuseNumber(name, text, kind);
  }
  return unit->factor * *number;
}

/// Help as the library prints it, but for what it cannot know: the words after `run`'s options.
class HelpFormatter : public CLI::Formatter {
 public:
  HelpFormatter() { column_width(26); }
  std::string make_usage(const CLI::App* app, std::string name) const override {
    if (app->get_name() != "run") return CLI::Formatter::make_usage(app, name);
    return "Usage: memleak run [OPTIONS] -- PROGRAM [ARGUMENTS...]\n\n";
  }
};

void AddRun(CLI::App* app, Options* options) {
  CLI::App* command = AddCommand(app, "run", "Start a program under the tracker", help::kRun);
  command->prefix_command();
  RunOptions& run = options->run;
  command->add_flag("--start", run.start, "Record from before main");
  command->add_flag("--report-at-exit", run.report_at_exit, "Write a report when the program ends");
  AddHookOptions(command, &options->control);
  AddBacktraceOptions(command, &options->control);
  command->add_option("--root", run.root, "Root directory (default: ./memleak.<pid>)")
      ->option_text("DIR");
  command->add_option("--log", run.log, "The tracker's log: a file, or stderr")
      ->option_text("FILE");
  command->add_option("--libdir", run.libdir, "Directory of the tracker's two libraries")
      ->option_text("DIR");
  command->add_option("--emulator", run.emulator, "Runs programs of another architecture")
      ->option_text("COMMAND");
}

void AddSymbolOptions(CLI::App* command, SymbolOptions* symbols) {
  command
      ->add_option("--symbols", symbols->symbol_dirs,
                   "Debug files or unstripped libraries;\ncan be given several times")
      ->option_text("DIR")
      ->allow_extra_args(false);
  command->add_option("--sysroot", symbols->sysroot, "A copy of the device's files")
      ->option_text("DIR");
  command->add_flag("--debuginfod", symbols->debuginfod, "Ask the servers in DEBUGINFOD_URLS too");
}

// For the earlier of two reports. Returns the options.
std::vector<CLI::Option*> AddOldSymbolOptions(CLI::App* command, OldSymbolOptions* symbols) {
  return {
      command
          ->add_option(
              "--old-symbols", symbols->symbol_dirs,
              "OLD's libraries or debug files, in place of\n--symbols; can be given several times")
          ->option_text("DIR")
          ->allow_extra_args(false),
      command
          ->add_option("--old-sysroot", symbols->sysroot, "The device's files at the time of OLD")
          ->option_text("DIR")};
}

void AddShow(CLI::App* app, Options* options) {
  CLI::App* show = AddCommand(app, "show", "Print a report", help::kShow);
  show->add_option("REPORT", options->show.report, "Report, root directory, or JSON document")
      ->required()
      ->option_text(" ");
  show->add_option("--by", options->by, "group, library, function, tree or callers")
      ->check(CLI::IsMember({"group", "library", "function", "tree", "callers"}))
      ->option_text("WHAT");
  show->add_option("--top", options->top, "Groups, rows or branches to show (10); 0: all")
      ->option_text("N");
  show->add_option(
          "--filter", options->show.view.selection.filter,
          "Groups with a matching function, library\nor source file on their stack (as grep -E)")
      ->option_text("REGEX");
  show->add_option("--min-size", options->min_size, "Groups that hold as much (64k, 1m)")
      ->option_text("BYTES");
  show->add_option("--older-than", options->older_than, "Groups with blocks that old (90s, 10m)")
      ->option_text("AGE");
  show->add_option("--sort", options->sort, "total, count, size or age")
      ->check(CLI::IsMember({"total", "count", "size", "age"}))
      ->option_text("KEY");
  AddSymbolOptions(show, &options->show.symbols);
  show->add_flag("--json", options->show.json, "One JSON document, for programs");
  show->add_flag("--partial", options->show.partial, "Accept a truncated report");
}

void AddHtml(CLI::App* app, HtmlOptions* options) {
  CLI::App* html = AddCommand(app, "html", "Write a page about a report", help::kHtml);
  html->add_option("REPORT", options->report, "Report, root directory, or JSON document")
      ->required()
      ->option_text(" ");
  html->add_option("-o,--output", options->output, "The page")->required()->option_text("FILE");
  CLI::Option* old =
      html->add_option("--diff", options->old,
                       "An older report, or its JSON document:\nshow what changed since")
          ->option_text("OLD");
  AddSymbolOptions(html, &options->symbols);
  for (CLI::Option* option : AddOldSymbolOptions(html, &options->old_symbols)) option->needs(old);
  html->add_flag("--partial", options->partial, "Accept a truncated report");
}

void AddWatch(CLI::App* app, Options* options) {
  CLI::App* watch = AddPidCommand(app, "watch", "Take reports in turn and say what grew",
                                  help::kWatch, &options->control);
  watch->add_option("-o,--output", options->watch.directory, "Directory for the reports, a new one")
      ->required()
      ->option_text("DIR");
  watch->add_option("--every", options->every, "From report to report (30s)")->option_text("TIME");
  watch->add_option("--for", options->duration, "In all (10m); 0: without end")
      ->option_text("TIME");
  watch->add_option("--timeout", options->control.timeout, "Seconds to wait for each report (60)")
      ->option_text("SECONDS");
  watch->add_option("--top", options->top, "Groups to print (10); 0: all")->option_text("N");
  AddSymbolOptions(watch, &options->watch.symbols);
}

void AddDiff(CLI::App* app, Options* options) {
  CLI::App* diff = AddCommand(app, "diff", "Say what changed between reports", help::kDiff);
  diff->add_option("OLD", options->diff.before, "Report, root directory, or JSON document")
      ->required()
      ->option_text(" ");
  diff->add_option("NEW", options->diff.after, "The same")->required()->option_text(" ");
  diff->add_option("--top", options->top, "Stacks to show (10) of each sort; 0: all")
      ->option_text("N");
  diff->add_option("--fail-over", options->fail_over, "Exit with 1 when all grew by more (64k, 1m)")
      ->option_text("BYTES");
  AddSymbolOptions(diff, &options->diff.symbols);
  AddOldSymbolOptions(diff, &options->diff.old_symbols);
  diff->add_flag("--json", options->diff.json, "One JSON document, for programs");
  diff->add_flag("--partial", options->diff.partial, "Accept truncated reports");
}

void AddExport(CLI::App* app, ExportOptions* options) {
  CLI::App* command = AddCommand(app, "export", "Write a report in another format", help::kExport);
  command->add_option("REPORT", options->report, "Report, root directory, or JSON document")
      ->required()
      ->option_text(" ");
  command->add_option("--format", options->format, "folded, speedscope, pprof, json or html")
      ->required()
      ->check(CLI::IsMember({"folded", "speedscope", "pprof", "json", "html"}))
      ->option_text("FORMAT");
  command->add_option("-o,--output", options->output, "Where to (default: standard output)")
      ->option_text("FILE");
  command->add_option("--by", options->by, "What folded stacks count: bytes (default)\nor count")
      ->check(CLI::IsMember({"bytes", "count"}))
      ->option_text("WHAT");
  AddSymbolOptions(command, &options->symbols);
  command->add_flag("--partial", options->partial, "Accept a truncated report");
}

void AddCommands(CLI::App* app, Options* options) {
  AddRun(app, options);
  AddControlCommands(app, {help::kOn, help::kReport, help::kStatus}, &options->control);
  AddShow(app, options);
  AddWatch(app, options);
  AddHtml(app, &options->html);
  AddDiff(app, options);
  AddExport(app, &options->exported);
}

int DispatchWatch(const CLI::App& command, Options* options) {
  WatchOptions& watch = options->watch;
  watch.pid = ChosenPid(options->control);
  if (command.count("--every") != 0) {
    watch.every_s =
        static_cast<std::uint32_t>(ParseWithUnit("--every", options->every, kEveryKind, kAgeUnits));
  }
  if (command.count("--for") != 0) {
    watch.for_s =
        static_cast<std::uint32_t>(ParseWithUnit("--for", options->duration, kForKind, kAgeUnits));
  }
  if (command.count("--timeout") != 0) {
    watch.timeout_s = ParseNumber32("--timeout", options->control.timeout, kTimeoutKind);
  }
  if (command.count("--top") != 0) watch.top = ParseNumber32("--top", options->top, kTopKind);
  return WatchCommand(watch);
}

int DispatchShow(const CLI::App& command, Options* options) {
  static const std::map<std::string, View> kViews = {{"group", View::kGroups},
                                                     {"library", View::kLibraries},
                                                     {"function", View::kFunctions},
                                                     {"tree", View::kTree},
                                                     {"callers", View::kCallers}};
  static const std::map<std::string, SortKey> kKeys = {{"total", SortKey::kTotal},
                                                       {"count", SortKey::kCount},
                                                       {"size", SortKey::kSize},
                                                       {"age", SortKey::kAge}};
  ShowOptions& show = options->show;
  show.view.view = kViews.at(options->by);
  Selection& selection = show.view.selection;
  selection.sort = kKeys.at(options->sort);
  if (command.count("--top") != 0) show.top = ParseNumber32("--top", options->top, kTopKind);
  if (command.count("--min-size") != 0) {
    selection.min_bytes = ParseWithUnit("--min-size", options->min_size, kBytesKind, kByteUnits);
  }
  if (command.count("--older-than") != 0) {
    selection.older_than = static_cast<std::int64_t>(
        ParseWithUnit("--older-than", options->older_than, kAgeKind, kAgeUnits));
  }
  return ShowCommand(show);
}

int DispatchDiff(const CLI::App& command, Options* options) {
  DiffOptions& diff = options->diff;
  if (command.count("--top") != 0) diff.top = ParseNumber32("--top", options->top, kTopKind);
  if (command.count("--fail-over") != 0) {
    diff.fail_over = ParseWithUnit("--fail-over", options->fail_over, kBytesKind, kByteUnits);
  }
  return DiffCommand(diff);
}

int Dispatch(const CLI::App& command, Options* options) {
  const std::string& name = command.get_name();
  if (name == "run") {
    CopyHookOptions(command, options->control, &options->run);
    CopyBacktraceOptions(command, options->control, &options->run);
    return RunCommand(options->run);
  }
  if (name == "show") return DispatchShow(command, options);
  if (name == "html") return HtmlCommand(options->html);
  if (name == "diff") return DispatchDiff(command, options);
  if (name == "export") return ExportCommand(options->exported);
  if (name == "watch") return DispatchWatch(command, options);
  return DispatchControl(command, &options->control);
}

// The program and its arguments: what follows "--", after what `run` did not know itself.
std::vector<std::string> ProgramWords(const CLI::App& command,
                                      const std::vector<std::string>& after_dashes, bool dashes) {
  std::vector<std::string> words = command.remaining();
  if (!words.empty() && words.front().starts_with('-')) {
    throw UserError("unknown option: " + words.front(), "see memleak run --help");
  }
  // With a program before it, "--" is the program's own argument.
  if (!words.empty() && dashes) words.emplace_back("--");
  words.insert(words.end(), after_dashes.begin(), after_dashes.end());
  return words;
}

int Main(const std::vector<std::string>& arguments) {
  CLI::App app{"memleak - find which call stacks of a running program hold its memory", "memleak"};
  app.require_subcommand(1);
  AddVersion(&app);
  app.footer(help::kMain);
  app.formatter(std::make_shared<HelpFormatter>());
  Options options;
  AddCommands(&app, &options);

  // The library would take what follows "--" for its own positional arguments.
  const auto dashes = std::find(arguments.begin(), arguments.end(), "--");
  const bool has_dashes = dashes != arguments.end();
  const std::vector<std::string> program(has_dashes ? dashes + 1 : dashes, arguments.end());
  const auto code = ParseWords(&app, std::vector<std::string>(arguments.begin(), dashes));
  if (code) return *code;
  const CLI::App& command = *app.get_subcommands().front();
  if (command.get_name() == "run") {
    options.run.command = ProgramWords(command, program, has_dashes);
  } else if (!program.empty()) {
    throw UserError("unexpected argument: " + program.front(),
                    "see memleak " + command.get_name() + " --help");
  }
  return Dispatch(command, &options);
}

}  // namespace
}  // namespace memleak

int main(int count, char** values) {
  return memleak::GuardedMain(count, values, memleak::Main);
}
