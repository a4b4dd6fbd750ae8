// The end of the stack on Android, where the platform's policy for frame pointers knows none: a walk
// by tables that may be wrong asks the kernel about each page beyond its first.
#include "platform/cfi/probe.h"
#include "platform/cfi/stack_range.h"

namespace platform::cfi {

bool StackRange::Reaches(std::uint64_t address, std::uint64_t bytes) {
  // No further than a main thread's stack may be long, as a rule.
  constexpr std::uint64_t kMostBytes = std::uint64_t{8} << 20;
  const std::uint64_t wanted = address + bytes;
  if (address < begin_ || wanted < address || wanted - begin_ > kMostBytes) return false;
  while (end_ < wanted && IsReadable(end_, 1)) end_ += kPageBytes;
  return wanted <= end_;
}

}  // namespace platform::cfi
