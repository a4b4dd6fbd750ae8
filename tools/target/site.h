// What differs between a desk and a device: where a tracked process keeps its files and settings,
// where its log goes, and what a person is told to do. One implementation each: site_linux.cpp for
// programs that `memleak run` has started, site_android.cpp for the device edition.
//
// Called by the commands that name a PID. Single-threaded.
#pragma once

#include <string>

#include "tools/target/process_info.h"

namespace memleak {

/// Fills in the places of `process`: root, log and shared_properties.
void FindPlaces(ProcessInfo* process);

/// The settings that a process reads.
struct StoredSettings {
  std::string text;      ///< lines "name=value"
  std::string place;     ///< where they stand; empty when there are none
  bool is_bare = false;  ///< nobody has set any for this process, and nobody shares its own
};

/// The settings in force for `process`.
StoredSettings ReadSettings(const ProcessInfo& process);

/// Puts the lines of `text`, which began as those of ReadSettings, in force for `process`. Throws
/// UserError when that is not allowed.
void WriteSettings(const ProcessInfo& process, const std::string& text);

/// Where a person finds the log of `process`: a file or a command; empty for nowhere.
std::string LogPlace(const ProcessInfo& process);

/// What else is known of recording when the log of `process` cannot be read here, to stand behind
/// "unknown".
std::string WhyUnknown(const ProcessInfo& process);

/// The command that brings the report at `path` to where it can be shown; empty when it is there.
std::string FetchCommand(const std::string& path);

/// Halves of messages.
struct SiteAdvice {
  const char* find_pid;       ///< a command that does
  const char* permission;     ///< how to be allowed to look at a process, and to signal it
  const char* with_tracker;   ///< "start it ..."
  const char* report_at_end;  ///< how to have a report although the process ends
  const char* unseen;         ///< after a command of which only the log could tell what came of it
  const char* unseen_hooks;   ///< the same, when slots could have told too
};
const SiteAdvice& Advice();

}  // namespace memleak
