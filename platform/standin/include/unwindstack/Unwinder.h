// Stand-in: the platform's unwinder interface, on top of the C++ runtime's unwinder.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "unwindstack/Maps.h"
#include "unwindstack/Memory.h"
#include "unwindstack/Regs.h"

namespace unwindstack {

/// One frame. An unwind here fills in the pc alone.
struct FrameData {
  /// Offset of `pc` in its file.
  std::uint64_t rel_pc = 0;
  /// An address inside the calling instruction, or where a signal interrupted the function.
  std::uint64_t pc = 0;
  std::string function_name;
};

/// One unwind of the calling thread. An object belongs to one thread. Any number of them may share
/// the maps.
class Unwinder {
 public:
  /// Unwinds at most `max_frames` kept frames. `maps` outlives the unwinder. Allocates the frames,
  /// so that the unwind itself needs no allocator: throws std::bad_alloc.
  Unwinder(std::size_t max_frames, LocalUpdatableMaps* maps, Regs* /*regs*/,
           const std::shared_ptr<Memory>& /*process_memory*/)
      : max_frames_(max_frames), maps_(maps) {
    frames_.reserve(max_frames);
  }

  /// Fills frames(), innermost first, from the calling function outward. Frames at the top of the
  /// stack that lie in a library of `initial_map_names_to_skip` are dropped and do not count
  /// against the limit. The list may be null. May wait for the dynamic linker's lock, which may be
  /// taken again by the thread that holds it; allocates nothing.
  __attribute__((noinline)) void Unwind(
      const std::vector<std::string>* initial_map_names_to_skip = nullptr);

  /// The frames of the last unwind.
  const std::vector<FrameData>& frames() const { return frames_; }

  /// Whether frames get function names. They never do here.
  void SetResolveNames(bool /*resolve*/) {}

 private:
  /// The unwind that is running.
  struct Walk;

  const std::size_t max_frames_;
  const LocalUpdatableMaps* const maps_;
  std::vector<FrameData> frames_;
};

}  // namespace unwindstack
