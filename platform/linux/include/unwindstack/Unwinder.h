// Linux stand-in: the platform's unwinder interface on top of libunwind.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "unwindstack/Maps.h"
#include "unwindstack/Memory.h"
#include "unwindstack/Regs.h"
#include "unwindstack/SharedString.h"

namespace unwindstack {

struct FrameData {
  std::size_t num = 0;
  std::uint64_t rel_pc = 0;
  std::uint64_t pc = 0;
  std::uint64_t sp = 0;
  SharedString function_name;
  std::uint64_t function_offset = 0;
  std::shared_ptr<MapInfo> map_info;
};

class Unwinder {
 public:
  /// Unwinds at most `max_frames` kept frames from `regs`, which the caller owns and keeps until
  /// the unwind ends. `maps` outlives the unwinder.
  Unwinder(std::size_t max_frames, LocalUpdatableMaps* maps, Regs* regs,
           std::shared_ptr<Memory> process_memory);

  /// Fills frames(), innermost first. Frames at the top of the stack that lie in a library whose
  /// basename is in `initial_map_names_to_skip` are dropped and do not count against the limit.
  /// Frames in a mapping whose name ends in one of `map_suffixes_to_ignore` end the unwind.
  /// Both lists may be null. A pc after the first is an address inside the calling instruction.
  void Unwind(const std::vector<std::string>* initial_map_names_to_skip = nullptr,
              const std::vector<std::string>* map_suffixes_to_ignore = nullptr);

  std::size_t NumFrames() const { return frames_.size(); }
  const std::vector<FrameData>& frames() const { return frames_; }
  std::vector<FrameData> ConsumeFrames() { return std::move(frames_); }
  /// Whether frames get function names; on by default, as in the platform's unwinder.
  void SetResolveNames(bool resolve) { resolve_names_ = resolve; }

 private:
  std::size_t max_frames_;
  LocalUpdatableMaps* maps_;
  Regs* regs_;
  std::shared_ptr<Memory> process_memory_;
  std::vector<FrameData> frames_;
  bool resolve_names_ = true;
};

}  // namespace unwindstack
