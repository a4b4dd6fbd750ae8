// SPDX-License-Identifier: Apache-2.0
// Takes reports of a process at intervals while recording continues. Used by `watch`;
// single-threaded.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "tools/symbols/symbol_options.h"

namespace memleak {

struct WatchOptions {
  pid_t pid = 0;
  std::uint32_t every_s = 30;
  std::uint32_t for_s = 600;     ///< from the first report to the last; 0: without end
  std::uint32_t timeout_s = 60;  ///< for each report; 0: without end
  std::string directory;         ///< for the reports; made when missing, else empty
  std::size_t top = 10;          ///< groups to print; 0: all
  SymbolOptions symbols;
};

/// When the round after the one at `last` is due, or nothing at the end. All times count from the
/// first round. Rounds that are late by more than `every` are skipped, except the last one before
/// `whole` (0: without end).
std::optional<std::chrono::milliseconds> NextDue(std::chrono::milliseconds last,
                                                 std::chrono::milliseconds every,
                                                 std::chrono::milliseconds whole,
                                                 std::chrono::milliseconds now);

/// Takes reports until the time is over, the process ends, or another command stops, pauses or
/// clears recording. An interrupt or hangup takes a last report; a second interrupt ends the
/// program. Output that cannot be written is ignored. Then writes page, table and trend.json.
/// Throws UserError if there is no report at all. Returns kExitUserError if a later one failed or
/// another command interfered.
int Watch(const WatchOptions& options);

}  // namespace memleak
