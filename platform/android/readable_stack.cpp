// SPDX-License-Identifier: Apache-2.0
// The readable stack in a platform tree. All code has frame pointers there, so no page is probed.
#include "platform/readable_stack.h"

namespace platform {
namespace {

/// A hooked caller's frame pointer register may hold any value. It is ignored if it is below the
/// running stack or more than this above it: 8 MiB, the size of the main thread's stack.
constexpr std::uint64_t kMaxStackBytes = std::uint64_t{8} << 20;

}  // namespace

void ReadableStack::LoadOtherStack() {}

bool ReadableStack::Reaches(std::uint64_t address, std::uint64_t bytes) {
  end_ = begin_ + kMaxStackBytes;
  return address >= begin_ && address - begin_ < kMaxStackBytes - bytes;
}

}  // namespace platform
