// The kinds of memory that a tracked process can record, and what steering each of them takes:
// command words, the tracker's log line, and the two settings that name what is to be hooked.
//
// Used by the commands that take --kind. Single-threaded.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace memleak {

/// Native is the heap; the others are recorded through hooks in chosen libraries.
enum class Kind : std::uint8_t { kNative, kMmap, kIon, kGpu };

/// What is particular to a kind.
struct KindInfo {
  Kind kind;
  const char* name;
  std::uint64_t on;  ///< command words
  std::uint64_t pause;
  std::uint64_t report;
  std::uint64_t clear;
  const char* state_line;  ///< start of the log line after on and pause, "true" or "false" next
  const char* default_library;  ///< hooked where none is named; empty: one must be named
  std::vector<std::string> default_functions;
};

/// The commands for the outside library that tracks file descriptors.
inline constexpr std::uint64_t kFdOn = 0x100000;
inline constexpr std::uint64_t kFdOff = 0x200000;
inline constexpr std::uint64_t kFdDump = 0x400000;
inline constexpr std::uint64_t kFdClear = 0x800000;

/// The settings that name what is hooked: libraries and functions, separated by commas.
inline constexpr const char* kHookLibraryProperty = "persist.sys.memleak.hookLib";
inline constexpr const char* kHookFunctionProperty = "persist.sys.memleak.hookFunc";
/// The longest value of a setting that the tracker reads whole.
inline constexpr std::size_t kMaxPropertyBytes = 91;

/// All kinds, native first.
const std::vector<KindInfo>& AllKinds();

const KindInfo& InfoOf(Kind kind);

/// The names in a list separated by commas, each once, blanks around them stripped: the tracker
/// itself would take those for parts of a name. Directories before a name are dropped. `option`
/// says in errors where the list stands. Throws UserError when it names nothing, or a name cannot
/// stand in a setting.
std::vector<std::string> ParseNames(const std::string& option, std::string_view list);

/// `names` as a setting holds them. Throws UserError when the value is longer than one may be.
std::string HookProperty(const std::string& option, const std::vector<std::string>& names);

/// What is to be hooked.
struct HookNames {
  std::vector<std::string> libraries;
  std::vector<std::string> functions;
};

/// The names in the options --lib and --func as they were given; empty ones stand for the defaults
/// of `kind`. Throws UserError as ParseNames, and when a library has to be named.
HookNames NamesFor(Kind kind, const std::string& libraries, const std::string& functions);

/// Said when the unwinder was asked for.
inline constexpr const char* kNoUnwindTables =
    "--unwind dwarf is not taken: the unwinder cannot cross a hook; frame pointers are walked";

/// `properties` with the hook settings and the frame-pointer walk in force. Throws UserError when a
/// setting cannot hold the names.
std::string WithHooks(const std::string& properties, const std::vector<std::string>& libraries,
                      const std::vector<std::string>& functions);

/// The state of the hooks after the last command in the text of a tracker log: "mmap on",
/// "ion paused", "recording off (stopped by a report)"; empty when there never was a command for
/// them.
std::string HooksFromLog(std::string_view log);

}  // namespace memleak
