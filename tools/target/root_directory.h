// SPDX-License-Identifier: Apache-2.0
// The properties file in a tracked process's root directory. If the process has other mounts,
// `root` starts with "/proc/PID/root", and links do not lead out of that. Single-threaded.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace memleak {

/// Backtrace settings. Changes leave unset ones as they are.
struct BacktraceSettings {
  std::optional<std::uint32_t> depth;  ///< frames per allocation
  std::optional<char> type;  ///< protocol::kUnwindFramePointers or protocol::kUnwindTables
};

/// The settings of a process of `machine` that has none of its own.
BacktraceSettings DefaultSettings(std::uint16_t machine);

/// The settings in a properties text. Missing and invalid values stay unset; the last of several
/// lines with one name counts, as for the tracker.
BacktraceSettings ParseSettings(std::string_view properties);

/// `properties` with the values of `settings`; other lines are kept.
std::string UpdateProperties(std::string_view properties, const BacktraceSettings& settings);

/// `properties` with `name` set to `value`; other lines are kept.
std::string WithProperty(std::string_view properties, const std::string& name,
                         const std::string& value);

/// Replaces the properties file in `root` by `properties`, atomically for readers. Creates a
/// missing `root`, private to the caller. Throws UserError if `root` is not writable, belongs to
/// another user, is writable by others or is a link.
void WriteProperties(const std::string& root, std::string_view properties);

/// Does the same with any file `name` in `root`.
void WriteBelowRoot(const std::string& root, const char* name, std::string_view content);

/// The text of the properties file in `root`. Nothing if it is unreadable or WriteProperties would
/// refuse `root`: the tracker does not read it either.
std::optional<std::string> ReadProperties(const std::string& root);

/// Whether the directory `root` exists and WriteProperties would not refuse it.
bool HasRoot(const std::string& root);

/// Removes the files `names` in `root`, and `root` if nothing else is in it. Errors are ignored.
void RemoveRoot(const std::string& root, const std::vector<const char*>& names);

}  // namespace memleak
