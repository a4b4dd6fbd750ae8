// Stand-in: the part of the platform's unwinder interface that records of Java frames use.
#pragma once

#include <cstdint>
#include <string>

namespace unwindstack {

/// One frame.
struct FrameData {
  /// Offset of `pc` in its file.
  std::uint64_t rel_pc = 0;
  std::uint64_t pc = 0;
  std::string function_name;
};

}  // namespace unwindstack
