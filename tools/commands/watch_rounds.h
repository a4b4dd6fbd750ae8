// Reports of a process at intervals while it goes on recording, and what grew between them. Called
// by `watch`; single-threaded.
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
  std::uint32_t for_s = 600;         ///< from the first report to the last; 0: without end
  std::uint32_t timeout_s = 60;      ///< for each report; 0: without end
  std::string directory;             ///< for the reports; made when missing, else empty
  std::optional<std::uint32_t> top;  ///< groups to print (10); 0: all
  SymbolOptions symbols;
};

/// When the round after the one of time `last` is due, all times counted from the first; nothing
/// when it is over. Times that have passed by more than `every` are left out, but never the last
/// one up to `whole` (0: without end).
std::optional<std::chrono::milliseconds> NextDue(std::chrono::milliseconds last,
                                                 std::chrono::milliseconds every,
                                                 std::chrono::milliseconds whole,
                                                 std::chrono::milliseconds now);

/// Runs until the time is over, the process ends, another command ends or empties the recording, or
/// an interrupt or a hangup, which get a last report; the next interrupt ends at once. Goes on when
/// the output cannot be written any more. Then writes page, table and trend.json. Throws UserError
/// when there is no report at all; returns kExitUserError when one failed later or another command
/// interfered.
int Watch(const WatchOptions& options);

}  // namespace memleak
