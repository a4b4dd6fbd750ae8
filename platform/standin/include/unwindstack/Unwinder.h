// Stand-in: the platform's unwinder interface, on top of libunwind or of the C++ runtime's
// unwinder.
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
  /// Offset of `pc` from the start of its mapping.
  std::uint64_t rel_pc = 0;
  /// The first frame's pc is an address in the function that filled the registers; every other one
  /// is an address inside the calling instruction (or, below a signal handler, the interrupted
  /// one).
  std::uint64_t pc = 0;
  /// Stack pointer in this frame; 0 after an unwind for pcs alone.
  std::uint64_t sp = 0;
  /// Linker name of the function, null when it has none or names are not wanted.
  SharedString function_name;
  std::uint64_t function_offset = 0;
  /// Null when the pc is in no mapping.
  std::shared_ptr<MapInfo> map_info;
};

/// One unwind of the calling thread. For one thread at a time; any number of unwinders may run side
/// by side on the same maps. Allocates, and with names also reads symbol files.
class Unwinder {
 public:
  /// Unwinds at most `max_frames` kept frames from `regs`, which the caller owns and keeps until
  /// the unwind ends. `maps` outlives the unwinder.
  Unwinder(std::size_t max_frames, LocalUpdatableMaps* maps, Regs* regs,
           std::shared_ptr<Memory> process_memory);

  /// Fills frames(), innermost first. Frames at the top of the stack that lie in a library whose
  /// basename is in `initial_map_names_to_skip` are dropped and do not count against the limit.
  /// A frame in a mapping whose name ends in '.' and one of `map_suffixes_to_ignore` ends the
  /// unwind. Both lists may be null.
  ///
  /// On libunwind, with names off, called directly by the function that filled the registers, this
  /// takes well under 100 ns a frame; otherwise microseconds. The C++ runtime's unwinder takes part
  /// of one.
  __attribute__((noinline)) void Unwind(
      const std::vector<std::string>* initial_map_names_to_skip = nullptr,
      const std::vector<std::string>* map_suffixes_to_ignore = nullptr);

  /// How many frames the last unwind kept; 0 before the first.
  std::size_t NumFrames() const { return frames_.size(); }
  /// Those frames, innermost first; owned by the unwinder, until the next unwind.
  const std::vector<FrameData>& frames() const { return frames_; }
  /// Those frames, handed over to the caller; the unwinder has none afterwards.
  std::vector<FrameData> ConsumeFrames() { return std::move(frames_); }

  /// Whether frames get function names; on by default, as in the platform's unwinder. Off, this
  /// adapter fills in only `num` and `pc`, for callers on the allocation path.
  void SetResolveNames(bool resolve) { resolve_names_ = resolve; }

 private:
  class SkipTest;
  /// One unwind by the unwinder beneath, in the file that adapts it.
  class Walk;

  /// Appends a frame, its mapping looked up when that is wanted. False when its mapping ends the
  /// unwind; then nothing is appended.
  bool AddFrame(std::uint64_t pc, std::uint64_t sp,
                const std::vector<std::string>* map_suffixes_to_ignore);

  std::size_t max_frames_;
  LocalUpdatableMaps* maps_;
  RegsLocal* regs_;
  std::shared_ptr<Memory> process_memory_;
  std::vector<FrameData> frames_;
  bool resolve_names_ = true;
};

}  // namespace unwindstack
