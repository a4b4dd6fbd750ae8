// SPDX-License-Identifier: Apache-2.0
#include "tools/commands/command_line.h"

#include <algorithm>
#include <exception>
#include <iostream>
#include <limits>
#include <map>

#include "tools/base/names.h"
#include "tools/base/user_error.h"

namespace memleak {
namespace {

constexpr std::uint32_t kMaxUint32 = std::numeric_limits<std::uint32_t>::max();
constexpr const char* kDigits = "0123456789";

// Strips leading zeros and returns whether the value can be a number. CLI11 converts with strtoull,
// which accepts signs, wraps numbers above 64 bits and reads a leading zero as octal. A number of
// 18 characters cannot overflow.
bool PrepareNumber(std::string* value) {
  constexpr std::size_t kMaxCharacters = 18;
  while (value->find_first_of(kDigits, 1) == 1 && value->front() == '0') value->erase(0, 1);
  return value->find_first_of(kDigits) == 0 && value->size() <= kMaxCharacters;
}

}  // namespace

Program::Program(const ProgramText& text)
    : app_(text.summary, "memleak"), is_device_(text.is_device) {
  app_.require_subcommand(1);
  app_.set_version_flag("--version", "memleak " MEMLEAK_VERSION, "Print the version and exit");
  app_.footer(text.help);
  const auto formatter = std::make_shared<CLI::Formatter>();
  formatter->column_width(26);
  app_.formatter(formatter);
}

CLI::App* Program::AddCommand(const char* name, const char* summary, const std::string& help) {
  CLI::App* command = app_.add_subcommand(name, summary);
  const bool has_codes = help.find("Exit codes:") != std::string::npos;
  command->footer(has_codes ? help
                            : help + "\n\nExit codes:\n  0  success\n  2  error (see stderr)");
  return command;
}

void Program::KeepDashes(const CLI::App* command, std::vector<std::string>* words) {
  dashes_command_ = command;
  dashes_words_ = words;
}

int Program::Run(const std::vector<std::string>& arguments) {
  const std::string first = arguments.empty() ? "" : arguments.front();
  const auto named = [&](const CLI::App* command) { return command->get_name() == first; };
  if (!first.empty() && first.front() != '-' && app_.get_subcommands(named).empty()) {
    throw UserError("unknown command: " + first, "see memleak --help");
  }
  auto end = arguments.end();
  if (dashes_command_ != nullptr && named(dashes_command_)) {
    end = std::find(arguments.begin(), arguments.end(), "--");
    dashes_words_->assign(end, arguments.end());
  }
  std::vector<std::string> words(arguments.begin(), end);
  std::reverse(words.begin(), words.end());  // as this form of parse takes them
  try {
    app_.parse(words);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) return app_.exit(error);  // help or version
    const auto chosen = app_.get_subcommands();
    const std::string name = chosen.empty() ? "" : " " + chosen.front()->get_name();
    throw UserError(error.what(), "see memleak" + name + " --help");
  }
  return exit_code_;
}

CLI::Option* Expect(CLI::Option* option, const CLI::Validator& check, const std::string& expected) {
  const auto run = [option, check, expected](std::string& value) {
    const std::string given = value;
    bool valid = false;
    try {
      valid = check(value).empty();
    } catch (const CLI::ValidationError&) {
      // Some of CLI11's validators throw.
    }
    if (valid) return std::string();
    throw UserError("invalid " + option->get_name() + " '" + given + "' (" + expected + ")");
  };
  return option->transform(CLI::Validator(run, ""));
}

CLI::Option* ExpectNumber(CLI::Option* option, const CLI::Validator& check,
                          const std::string& expected) {
  const auto run = [check](std::string& value) {
    return PrepareNumber(&value) ? check(value) : std::string("not a number");
  };
  return Expect(option, CLI::Validator(run, ""), expected);
}

CLI::Option* ExpectNumber32(CLI::Option* option, const std::string& expected) {
  return ExpectNumber(option, CLI::Range(kMaxUint32), expected);
}

CLI::Option* ExpectBytes(CLI::Option* option) {
  return ExpectNumber(option, CLI::AsSizeValue(false), "bytes, such as 4096, 64k or 1m");
}

CLI::Option* ExpectTime(CLI::Option* option, std::uint32_t least, const std::string& expected) {
  const std::map<std::string, std::uint32_t> units = {
      {"s", 1}, {"m", 60}, {"h", 3600}, {"d", 86400}};
  return ExpectNumber(option, CLI::AsNumberWithUnit(units) & CLI::Range(least, kMaxUint32),
                      expected);
}

CLI::Option* ExpectOneOf(CLI::Option* option, const std::vector<std::string>& names) {
  option->option_text(CLI::detail::join(names, "|"));
  return Expect(option, CLI::IsMember(names), CLI::detail::join(names, ", "));
}

int RunProgram(int count, char** values, const ProgramText& text,
               std::initializer_list<void (*)(Program*)> commands) {
  try {
    Program program(text);
    for (const auto add : commands) add(&program);
    const int code = program.Run(std::vector<std::string>(values + 1, values + count));
    if (!std::cout.flush()) {
      throw UserError("cannot write to the standard output",
                      "free some space, or redirect the output");
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
