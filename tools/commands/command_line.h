// SPDX-License-Identifier: Apache-2.0
// The program with its subcommands, and validation of option values. Single-threaded.
#pragma once

#include <CLI/CLI.hpp>

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace memleak {

/// What differs between the program's editions.
struct ProgramText {
  const char* summary;  ///< the first line of --help
  const char* help;     ///< below the list of commands
  bool is_device;       ///< some help texts differ on a device
};

/// The program: each command adds itself, then Run parses the arguments and runs one of them.
class Program {
 public:
  explicit Program(const ProgramText& text);
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  /// Adds the subcommand `name` with `help` below its options, and with the usual exit codes if
  /// `help` has none. The program owns it.
  CLI::App* AddCommand(const char* name, const char* summary, const std::string& help);

  /// The same with the action `run`. It returns the exit code and may throw UserError. The caller
  /// binds options to the members of the returned Options, which the program owns.
  template <typename Options>
  std::pair<CLI::App*, Options*> AddCommand(const char* name, const char* summary,
                                            const std::string& help, int (*run)(const Options&)) {
    CLI::App* command = AddCommand(name, summary, help);
    const auto options = std::make_shared<Options>();
    command->callback([this, run, options] { exit_code_ = run(*options); });
    return {command, options.get()};
  }

  /// Stores all words from "--" on, with the "--", in `words` if `command` is the first argument.
  /// CLI11 would parse them.
  void KeepDashes(const CLI::App* command, std::vector<std::string>* words);

  /// Parses `arguments`, without the program's name, and runs the command. Returns the exit code.
  /// Throws UserError for a bad command line, and what the command throws.
  int Run(const std::vector<std::string>& arguments);

  bool IsDevice() const { return is_device_; }

 private:
  CLI::App app_;
  bool is_device_;
  int exit_code_ = 0;
  const CLI::App* dashes_command_ = nullptr;
  std::vector<std::string>* dashes_words_ = nullptr;
};

/// Each adds a command to the program: its options, help and action.
void AddRun(Program* program);
void AddAttach(Program* program);
void AddDetach(Program* program);
void AddOn(Program* program);
void AddPause(Program* program);
void AddReport(Program* program);
void AddClear(Program* program);
void AddLibs(Program* program);
void AddFd(Program* program);
void AddSend(Program* program);
void AddStatus(Program* program);
void AddShow(Program* program);
void AddWatch(Program* program);
void AddHtml(Program* program);
void AddDiff(Program* program);
void AddExport(Program* program);

/// Adds the option or argument `name`, which sets `target`. The help shows `value` after the name.
template <typename Target>
CLI::Option* AddOption(CLI::App* command, const char* name, Target* target, const char* value,
                       const std::string& summary) {
  return command->add_option(name, *target, summary)->option_text(value);
}

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

/// The same for a time of at least `least` seconds, such as 90, 10m, 2h or 1d, in seconds.
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

/// Runs the program with `commands`, and the arguments of main. Returns the exit code. An
/// exception, and output that cannot be written, becomes one line on the error output and exit
/// code 2.
int RunProgram(int count, char** values, const ProgramText& text,
               std::initializer_list<void (*)(Program*)> commands);

}  // namespace memleak
