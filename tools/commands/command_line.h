// What the command lines of both editions have in common: numbers, words, and how all that goes
// wrong ends as one line. Called by the two programs' main alone.
#pragma once

#include <CLI/CLI.hpp>

#include <sys/types.h>

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

namespace memleak {

/// What a number on the command line has to be.
struct NumberKind {
  const char* noun;
  std::uint64_t least;
  std::uint64_t most;
  const char* remedy;
};

inline constexpr std::uint64_t kMost32 = std::numeric_limits<std::uint32_t>::max();
inline constexpr std::uint64_t kMost64 = std::numeric_limits<std::uint64_t>::max();
inline constexpr NumberKind kTimeoutKind = {"a number of seconds", 0, kMost32,
                                            "give one such as 300, or 0 to wait without end"};

/// The whole of `text` as a number, decimal or with "0x"; nothing when it is none.
std::optional<std::uint64_t> ReadNumber(const std::string& text);
/// Throws UserError: `text`, the value of option `name`, is not of `kind`.
[[noreturn]] void RefuseNumber(const std::string& name, const std::string& text,
                               const NumberKind& kind);
/// The whole of `text`, the value of option `name`, as ReadNumber does. Throws UserError when
/// it is none or out of range.
std::uint64_t ParseNumber(const std::string& name, const std::string& text, const NumberKind& kind);
/// ParseNumber for kinds that 32 bits hold.
std::uint32_t ParseNumber32(const std::string& name, const std::string& text,
                            const NumberKind& kind);

/// Adds --version, which prints the program's name and version.
void AddVersion(CLI::App* app);

/// Adds the subcommand `name`; `text` stands below its options.
CLI::App* AddCommand(CLI::App* app, const char* name, const char* summary, const char* text);

/// Fills in the options of `app` from `words`. Returns the exit code when that was all, for help
/// and version; afterwards there is one subcommand. Throws UserError.
std::optional<int> ParseWords(CLI::App* app, const std::vector<std::string>& words);

/// Runs `command` with the arguments of main and returns the exit code. What it throws, and output
/// that cannot be written, becomes one line on the error output.
int GuardedMain(int count, char** values, int (*command)(const std::vector<std::string>&));

}  // namespace memleak
