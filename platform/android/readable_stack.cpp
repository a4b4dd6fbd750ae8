// The readable stack on a device. All code keeps frame pointers there, so nothing is probed. Any
// thread, any context.
#include "platform/readable_stack.h"

namespace platform {
namespace {

/// What a hooked caller has in its frame pointer register is no frame when it is below the running
/// stack or farther above. 8 MiB, the size of a main thread's stack.
constexpr std::uint64_t kMostBytes = std::uint64_t{8} << 20;

}  // namespace

void PrepareReadableStack() {}

void ReadableStack::RecallOtherStack() {}

bool ReadableStack::Reaches(std::uint64_t address, std::uint64_t bytes) {
  end_ = begin_ + kMostBytes;
  return address >= begin_ && address - begin_ < kMostBytes - bytes;
}

}  // namespace platform
