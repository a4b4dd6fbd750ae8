// SPDX-License-Identifier: Apache-2.0
// The three layers through which the tracker captures, and what a test needs to call them. Like the
// tracker this is a library of its own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "tests/backtrace/fakes.h"

struct Capture {
  // On the heap: a large frame between the others would end the walk.
  std::vector<std::uint64_t> frames = std::vector<std::uint64_t>(2048);
  std::size_t max_frames = 0;
  std::size_t count = 0;
  /// The frame pointer from which the walk starts.
  std::uint64_t base = 0;
  /// Return addresses of the functions on the way in, outermost first.
  std::vector<std::uint64_t> return_addresses;

  __attribute__((always_inline)) void NoteCaller() {
    return_addresses.push_back(reinterpret_cast<std::uint64_t>(
        __builtin_extract_return_addr(__builtin_return_address(0))));
  }
};

/// Prevents the compiler from turning the call before it into a jump, which has no frame.
#define KEEP_FRAME() __asm__ volatile("" ::: "memory")

extern "C" {
/// Replaces an exported allocator entry.
TEST_EXPORT void CaptureEntry(Capture& capture);

TEST_EXPORT void CaptureStartup();
TEST_EXPORT char CaptureTypeFromProp();
TEST_EXPORT std::size_t CaptureLimit();
TEST_EXPORT std::uint32_t CaptureSize();
}
