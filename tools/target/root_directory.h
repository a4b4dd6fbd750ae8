// A tracked process's root directory: the place of its properties and its report. Called by `run`,
// `on` and `status`. Single-threaded.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace memleak {

/// The backtrace settings that a person chose; what is not set is left as it is.
struct BacktraceSettings {
  std::optional<std::uint32_t> depth;  ///< frames per allocation
  std::optional<char> type;  ///< protocol::kUnwindFramePointers or protocol::kUnwindTables
};

/// Settings in force according to a properties text: unset or unusable values are left empty, and
/// of several lines with one name the last counts, as for the tracker.
BacktraceSettings ParseSettings(std::string_view properties);

/// `properties` with the values of `settings` put in place, other lines kept.
std::string UpdateProperties(std::string_view properties, const BacktraceSettings& settings);

/// `properties` with `name` set to `value`, other lines kept.
std::string WithProperty(std::string_view properties, const std::string& name,
                         const std::string& value);

/// Replaces the properties file in `root` by `properties` in one step, so that a process reading it
/// meanwhile sees the old or the new text. Makes `root`, private to the caller, when it is missing.
/// Throws UserError when `root` is not writable, belongs to another user, is writable for others or
/// is a link.
void WriteProperties(const std::string& root, std::string_view properties);

/// The text of the properties file in `root`. Nothing when it cannot be read, or when `root` is a
/// directory that WriteProperties refuses: the tracker does not read it either.
std::optional<std::string> ReadProperties(const std::string& root);

/// The text of a file, or nothing when it cannot be read.
std::optional<std::string> ReadTextFile(const std::string& path);

}  // namespace memleak
