// SPDX-License-Identifier: Apache-2.0
// The program with its subcommands, and validation of option values. Single-threaded.
#pragma once

#include <CLI/CLI.hpp>

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace memleak {

/// Where the program runs. Some help texts differ.
enum class Edition : std::uint8_t { kHost, kDevice };

/// The program: each command adds itself, then Run parses the arguments and runs one of them.
class Program {
 public:
  /// `summary` is the first line of --help, `help` the text below the list of commands.
  Program(const char* summary, const char* help, Edition edition);
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  /// Adds the subcommand `name` with `help` below its options. The program owns it.
  CLI::App* AddCommand(const char* name, const char* summary, const std::string& help);

  /// Makes `run` the action of `command`. It returns the exit code and may throw UserError.
  void SetAction(CLI::App* command, std::function<int()> run);

  /// Stores all words from "--" on, with the "--", in `words` if `command` is the first argument.
  /// CLI11 would parse them.
  void KeepDashes(const CLI::App* command, std::vector<std::string>* words);

  /// Parses `arguments`, without the program's name, and runs the command. Returns the exit code.
  /// Throws UserError for a bad command line, and what the command throws.
  int Run(const std::vector<std::string>& arguments);

  Edition GetEdition() const { return edition_; }

 private:
  CLI::App app_;
  Edition edition_;
  int exit_code_ = 0;
  const CLI::App* dashes_command_ = nullptr;
  std::vector<std::string>* dashes_words_ = nullptr;
};

/// Makes values that `check` rejects an error such as "invalid --by 'x' (bytes, count)"; `expected`
/// is the text in parentheses. `check` may change the value. Returns `option`.
CLI::Option* Expect(CLI::Option* option, const CLI::Validator& check, const std::string& expected);

/// The same for numbers, decimal or with "0x".
CLI::Option* ExpectNumber(CLI::Option* option, const CLI::Validator& check,
                          const std::string& expected);

/// The same for any number of 32 bits.
CLI::Option* ExpectNumber32(CLI::Option* option, const std::string& expected);

/// The same for bytes, such as 4096, 64k or 1m. Units are powers of 1024.
CLI::Option* ExpectBytes(CLI::Option* option);

/// The same for a time of at least `least` seconds, such as 90, 10m, 2h or 1d. The value is
/// converted to seconds.
CLI::Option* ExpectTime(CLI::Option* option, std::uint32_t least, const std::string& expected);

/// The same for one of `names`. The help lists them as "NAME|NAME".
CLI::Option* ExpectOneOf(CLI::Option* option, const std::vector<std::string>& names);

/// Adds an option that takes the name of a choice and sets `target` to its value.
template <typename Value, typename Target>
CLI::Option* AddChoice(CLI::App* command, const std::string& option, Target* target,
                       const std::vector<std::pair<std::string, Value>>& choices,
                       const std::string& summary) {
  const auto set = [target, choices](const std::string& given) {
    for (const auto& [name, value] : choices) {
      if (name == given) *target = value;
    }
  };
  std::vector<std::string> names;
  names.reserve(choices.size());
  for (const auto& choice : choices) names.push_back(choice.first);
  return ExpectOneOf(command->add_option_function<std::string>(option, set, summary), names);
}

/// Runs `command` with the arguments of main and returns the exit code. An exception, and output
/// that cannot be written, becomes one line on the error output and exit code 2.
int GuardedMain(int count, char** values, int (*command)(const std::vector<std::string>&));

}  // namespace memleak
