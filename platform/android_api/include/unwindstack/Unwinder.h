// SPDX-License-Identifier: Apache-2.0
// Replacement for the part of libunwindstack that records of Java frames use.
#pragma once

#include <cstdint>
#include <string>

namespace unwindstack {

/// One frame of a stack.
struct FrameData {
  /// `pc` relative to the start of its file.
  std::uint64_t rel_pc = 0;
  std::uint64_t pc = 0;
  std::string function_name;
};

}  // namespace unwindstack
