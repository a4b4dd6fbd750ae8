// SPDX-License-Identifier: Apache-2.0
// What differs between Linux hosts and Android devices: where a tracked process keeps its files,
// settings and log, whether it answers commands, and what messages advise. site_linux.cpp is for
// programs under the loader, site_android.cpp for the device edition. Single-threaded.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "tools/target/process_info.h"

namespace memleak {

/// Sets the members of `process` that tell where its files are: from `state` on. The others are
/// set. `maps` is the text of /proc/PID/maps.
void FindPlaces(std::string_view maps, ProcessInfo* process);

/// The properties that a process reads.
struct StoredSettings {
  std::string text;       ///< lines "name=value"
  std::string place;      ///< where they are stored; empty if there are none
  bool is_unset = false;  ///< the process can read no properties
};

/// The properties in force for `process`.
StoredSettings ReadSettings(const ProcessInfo& process);

/// Replaces the properties of `process` by the lines of `text`, an edited ReadSettings().text.
/// Throws UserError if that is not permitted.
void WriteSettings(const ProcessInfo& process, const std::string& text);

/// The frames per record that "on" sets for a process without settings.
extern const std::uint32_t kDefaultDepth;

/// Parts of messages.
struct SiteAdvice {
  const char* find_pid;       ///< a command that finds a PID
  const char* permission;     ///< how to get permission to inspect and signal a process
  const char* with_tracker;   ///< follows "start it "
  const char* load;           ///< a command that loads the tracker, before the PID; null: none
  const char* report_at_end;  ///< how to get a report of a process that ends
  const char* fetch;          ///< copies a report to the host, before its path; null: it is there
  const char* unseen;         ///< after a command whose result only the log shows
};
const SiteAdvice& Advice();

}  // namespace memleak
