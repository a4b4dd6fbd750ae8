// SPDX-License-Identifier: Apache-2.0
// The layers entry -> Add -> AddBacktrace -> BacktraceGet, one frame each.
#include "tests/backtrace/capture_chain.h"

#include "backtrace/Backtrace.h"

namespace {

__attribute__((noinline)) void AddBacktrace(Capture& capture) {
  std::vector<unwindstack::FrameData> frame_data(1);
  capture.base = reinterpret_cast<std::uint64_t>(__builtin_frame_address(0));
  capture.count = BacktraceGet(capture.frames.data(), capture.max_frames, frame_data);
}

__attribute__((noinline)) void Add(Capture& capture) {
  AddBacktrace(capture);
  KEEP_FRAME();
}

}  // namespace

void CaptureEntry(Capture& capture) {
  capture.NoteCaller();
  Add(capture);
  KEEP_FRAME();
}

void CaptureStartup() {
  BacktraceStartup();
}
char CaptureTypeFromProp() {
  return GetBacktraceTypeFromProp();
}
std::size_t CaptureLimit() {
  return BacktraceCaptureLimit();
}
std::uint32_t CaptureSize() {
  return BacktraceSize();
}
