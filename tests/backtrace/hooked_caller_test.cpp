// SPDX-License-Identifier: Apache-2.0
// The walk that starts at the caller of a hooked function.
#include <gtest/gtest.h>

#include "arch/frame.h"
#include "backtrace/Backtrace.h"
#include "plthooks/trampoline.h"
#include "tests/backtrace/fakes.h"
#include "tracker/control/MemTrackControl.h"

namespace {

struct HookedCall {
  int active;
  std::uintptr_t pc;
  std::uintptr_t frame;
} call;

std::vector<std::uint64_t> Capture(std::size_t max_frames) {
  std::vector<unwindstack::FrameData> frame_data;
  std::uint64_t frames[64] = {};
  const std::size_t count = BacktraceGet(frames, max_frames, frame_data);
  return {frames, frames + count};
}

}  // namespace

int lumora::plthooks::get_stack_address_for_previous(std::uintptr_t* pc, std::uintptr_t* frame) {
  if (call.active != 0) {
    *pc = call.pc;
    *frame = call.frame;
  }
  return call.active;
}

namespace {

std::uint64_t CallerOf(const arch::FrameRecord& record) {
  return arch::StripReturnAddress(record.return_address) - arch::kCallSiteAdjustment;
}

/// Captures many frames below the caller.
__attribute__((noinline)) std::vector<std::uint64_t> CaptureFar(std::size_t max_frames) {
  char large[100'000];
  __asm__ volatile("" : : "r"(large) : "memory");
  return Capture(max_frames);
}

/// A hooked caller whose own caller also has a frame pointer.
__attribute__((noinline)) void CallHooked() {
  const auto* own = static_cast<arch::FrameRecord*>(__builtin_frame_address(0));
  call = {1, 0x12345, reinterpret_cast<std::uintptr_t>(own)};
  EXPECT_EQ(CaptureFar(2), (std::vector<std::uint64_t>{0x12345, CallerOf(*own)}));
  EXPECT_EQ(CaptureFar(1).size(), 1U);
  EXPECT_EQ(CaptureFar(0).size(), 0U);
}

TEST(HookedCaller, ComesFirstAndNoFrameIsSkipped) {
  is_plt_hook = true;
  CallHooked();
  __asm__ volatile("");  // the call must not become a jump, which has no frame
}

TEST(HookedCaller, WithoutAFramePointerIsTheOnlyFrame) {
  is_plt_hook = true;
  char local = 0;
  static const char kElsewhere = 0;
  const auto below = (reinterpret_cast<std::uintptr_t>(&local) - 65536) / 16 * 16;
  const auto elsewhere = reinterpret_cast<std::uintptr_t>(&kElsewhere) / 16 * 16;
  for (const std::uintptr_t frame :
       {std::uintptr_t{7}, below, elsewhere, std::uintptr_t{16}, ~std::uintptr_t{15}}) {
    call = {1, 0x12345, frame};
    EXPECT_EQ(Capture(10), std::vector<std::uint64_t>{0x12345});
  }
  call = {1, 0x12345, 0};
  EXPECT_TRUE(Capture(10).empty());
}

TEST(HookedCaller, IfMissingLogsALineAndRecordsNoFrames) {
  is_plt_hook = true;
  call = {0, 0, 0};
  fakes::LogLines().clear();
  EXPECT_TRUE(Capture(10).empty());
  EXPECT_EQ(fakes::LogLines(),
            std::vector<std::string>{"6 MemLeak.Native: get_stack_address_for_previous fail"});
}

}  // namespace
