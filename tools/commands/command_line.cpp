// The common parts of the two command lines.
#include "tools/commands/command_line.h"

#include <charconv>
#include <exception>
#include <iostream>

#include "tools/base/names.h"
#include "tools/base/user_error.h"

namespace memleak {
namespace {

bool HasCommand(CLI::App* app, const std::string& name) {
  return !app->get_subcommands([&](CLI::App* command) { return command->get_name() == name; })
              .empty();
}

}  // namespace

std::optional<std::uint64_t> ReadNumber(const std::string& text) {
  const bool hex = text.starts_with("0x") || text.starts_with("0X");
  const char* begin = text.data() + (hex ? 2 : 0);
  const char* end = text.data() + text.size();
  std::uint64_t value = 0;
  const auto result = std::from_chars(begin, end, value, hex ? 16 : 10);
  if (result.ec != std::errc() || result.ptr != end) return std::nullopt;
  return value;
}

void RefuseNumber(const std::string& name, const std::string& text, const NumberKind& kind) {
  throw UserError(name + " is not " + kind.noun + ": " + text, kind.remedy);
}

std::uint64_t ParseNumber(const std::string& name, const std::string& text,
                          const NumberKind& kind) {
  const auto value = ReadNumber(text);
  if (!value || *value < kind.least || *value > kind.most) RefuseNumber(name, text, kind);
  return *value;
}

std::uint32_t ParseNumber32(const std::string& name, const std::string& text,
                            const NumberKind& kind) {
  return static_cast<std::uint32_t>(ParseNumber(name, text, kind));
}

void AddVersion(CLI::App* app) {
  app->set_version_flag("--version", "memleak " MEMLEAK_VERSION, "Print the version and exit");
}

CLI::App* AddCommand(CLI::App* app, const char* name, const char* summary, const char* text) {
  CLI::App* command = app->add_subcommand(name, summary);
  command->footer(text);
  return command;
}

std::optional<int> ParseWords(CLI::App* app, const std::vector<std::string>& words) {
  if (!words.empty() && !words.front().starts_with('-') && !HasCommand(app, words.front())) {
    throw UserError("unknown command: " + words.front(), "see memleak --help");
  }
  try {
    // This form of parse takes the words in reverse.
    app->parse(std::vector<std::string>(words.rbegin(), words.rend()));
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) return app->exit(error);
    const auto chosen = app->get_subcommands();
    const std::string name = chosen.empty() ? "" : " " + chosen.front()->get_name();
    throw UserError(error.what(), "see memleak" + name + " --help");
  }
  return std::nullopt;
}

int GuardedMain(int count, char** values, int (*command)(const std::vector<std::string>&)) {
  try {
    const int code = command(std::vector<std::string>(values + 1, values + count));
    if (!std::cout.flush()) {
      throw UserError("cannot write to the standard output",
                      "make room, or send the output elsewhere");
    }
    return code;
  } catch (const UserError& error) {
    std::cerr << "memleak: " << Printable(error.what()) << "\n";
    return kExitUserError;
  } catch (const std::exception& error) {
    std::cerr << "memleak: internal error: " << Printable(error.what()) << "\n";
    return kExitUserError;
  }
}

}  // namespace memleak
