// What `on` does, for `watch`, which starts recording too. Single-threaded.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

#include "tools/target/kinds.h"

namespace memleak {

struct OnOptions {
  pid_t pid = 0;
  Kind kind = Kind::kNative;
  std::string libraries;  ///< to be hooked, separated by commas; empty: the kind's default
  std::string functions;  ///< the same
  bool keep = false;      ///< keep what is recorded already
  std::optional<std::uint32_t> depth;
  std::optional<char> type;
};

/// Starts recording, prints what is recorded and returns the exit code. Throws UserError.
int StartRecording(const OnOptions& options);

}  // namespace memleak
