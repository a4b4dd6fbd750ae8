// SPDX-License-Identifier: Apache-2.0
// Starting to record, for `on` and `watch`. Single-threaded.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

#include "tools/target/kinds.h"

namespace memleak {

struct OnOptions {
  pid_t pid = 0;
  const Kind* kind = &protocol::kNative;
  std::string libraries;  ///< to hook, separated by commas; empty: the default of the kind
  std::string functions;  ///< the same
  bool keep = false;      ///< keep earlier records
  std::optional<std::uint32_t> depth;
  std::optional<char> type;
};

/// Starts recording, prints what is recorded, and returns the exit code. Throws UserError.
int StartRecording(const OnOptions& options);

}  // namespace memleak
