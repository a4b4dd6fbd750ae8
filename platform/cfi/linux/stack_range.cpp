// The end of the stack as on Linux every capture finds it: known stacks take no system call.
#include "platform/cfi/stack_range.h"

namespace platform::cfi {

bool StackRange::Reaches(std::uint64_t address, std::uint64_t bytes) {
  if (address < begin_) return false;
  const bool reaches = readable_.Holds(address, bytes);
  end_ = readable_.KnownEnd();
  return reaches;
}

}  // namespace platform::cfi
