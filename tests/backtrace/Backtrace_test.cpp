// SPDX-License-Identifier: Apache-2.0
// Captures a known chain of functions through the tracker's three layers and compares every pc.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <iterator>
#include <string>
#include <vector>

#include "arch/frame.h"
#include "tests/backtrace/capture_chain.h"

#define LAYER extern "C" __attribute__((noinline)) TEST_EXPORT

LAYER void Inner(Capture& capture) {
  capture.NoteCaller();
  CaptureEntry(capture);
  KEEP_FRAME();
}

LAYER void Middle(Capture& capture) {
  capture.NoteCaller();
  Inner(capture);
  KEEP_FRAME();
}

LAYER void Outer(Capture& capture) {
  capture.NoteCaller();
  Middle(capture);
  KEEP_FRAME();
}

/// Separates the compared frames from those of the test bodies, which sanitizers make large.
LAYER void Root(Capture& capture) {
  Outer(capture);
  KEEP_FRAME();
}

/// Captures while its own frame record has `caller_frame` as the caller's frame.
LAYER __attribute__((no_sanitize("address", "undefined"))) void Forge(Capture& capture,
                                                                      std::uint64_t caller_frame) {
  auto* record = static_cast<volatile arch::FrameRecord*>(__builtin_frame_address(0));
  const std::uint64_t saved = record->caller_frame;
  record->caller_frame = caller_frame;
  CaptureEntry(capture);
  record->caller_frame = saved;
}

namespace {

void UseType(const std::string& type) {
  fakes::SetProperty("vastel.memleak.backtacetype", type);
  ASSERT_EQ(CaptureTypeFromProp(), type[0]);
}

std::vector<std::uint64_t> Frames(const Capture& capture) {
  const auto* frames = capture.frames.data();
  return {frames, frames + capture.count};
}

/// The return addresses that the functions recorded on the way in, innermost first.
std::vector<std::uint64_t> ExpectedFrames(const Capture& capture) {
  std::vector<std::uint64_t> expected(capture.return_addresses.rbegin(),
                                      capture.return_addresses.rend());
  for (std::uint64_t& pc : expected) pc -= arch::kCallSiteAdjustment;
  return expected;
}

std::string FunctionAt(std::uint64_t pc) {
  Dl_info info = {};
  dladdr(reinterpret_cast<void*>(pc), &info);
  return info.dli_sname == nullptr ? "?" : info.dli_sname;
}

class CaptureTest : public testing::TestWithParam<const char*> {
 protected:
  void SetUp() override {
    CaptureStartup();
    UseType(GetParam());
  }
};

TEST_P(CaptureTest, StartsAtTheCallerOfTheEntry) {
  for (const std::size_t max_frames : {0, 1, 4}) {
    Capture capture;
    capture.max_frames = max_frames;
    Root(capture);
    std::vector<std::uint64_t> expected = ExpectedFrames(capture);
    ASSERT_EQ(expected.size(), 4U);
    expected.resize(max_frames);
    EXPECT_EQ(Frames(capture), expected);
    EXPECT_EQ(capture.frames[max_frames], 0U);
    const char* const functions[] = {"Inner", "Middle", "Outer", "Root"};
    for (std::size_t i = 0; i < capture.count; ++i) {
      EXPECT_EQ(FunctionAt(capture.frames[i]), functions[i]);
    }
  }
  Capture endless;
  endless.max_frames = ~std::size_t{0};
  Root(endless);
  EXPECT_GE(endless.count, 4U);
  EXPECT_LE(endless.count, CaptureLimit());
}

INSTANTIATE_TEST_SUITE_P(BothMethods, CaptureTest, testing::Values("0", "1"));

TEST(FramePointerWalkTest, ChecksBothEndsOfItsRange) {
  alignas(16) arch::FrameRecord area[512] = {};
  Capture capture;
  capture.max_frames = 10;
  Forge(capture, 0);
  EXPECT_EQ(capture.count, 1U);
  const std::uint64_t limit = capture.base + 4096;
  const std::uint64_t last = limit - sizeof(arch::FrameRecord);
  ASSERT_GE(last, reinterpret_cast<std::uint64_t>(std::begin(area)));
  ASSERT_LT(last, reinterpret_cast<std::uint64_t>(std::end(area)));
  Forge(capture, limit);
  EXPECT_EQ(capture.count, 1U);
  Forge(capture, capture.base - sizeof(arch::FrameRecord));
  EXPECT_EQ(capture.count, 1U);
  Forge(capture, last);
  EXPECT_EQ(capture.count, 2U);
}

TEST(FramePointerWalkTest, CircularChainEndsAtTheCaptureLimit) {
  Capture capture;
  capture.max_frames = 10;
  Forge(capture, 0);
  capture.max_frames = 2000;
  Forge(capture, capture.base);
  EXPECT_EQ(capture.count, CaptureLimit());
}

TEST(BacktraceSettings, KeepTheirValuesUntilAPropertyChangesThem) {
  EXPECT_EQ(CaptureTypeFromProp(), '0');
  EXPECT_EQ(CaptureLimit(), 256U);
  EXPECT_EQ(CaptureSize(), 10U);
  UseType("1 and more");
  fakes::SetProperty("vastel.memleak.backtacetype", "");
  EXPECT_EQ(CaptureTypeFromProp(), '1');
  EXPECT_EQ(CaptureLimit(), 1024U);
  Capture capture;
  capture.max_frames = 10;
  Root(capture);
  EXPECT_EQ(capture.count, 0U) << "the unwinder has not been started";
  EXPECT_TRUE(fakes::LogLines().empty());
  // An invalid type is stored, and every capture logs it.
  UseType("2x");
  Root(capture);
  Root(capture);
  EXPECT_EQ(capture.count, 0U);
  EXPECT_EQ(CaptureLimit(), 0U);
  const std::string line = "6 MemLeak.Native: invalid backtrace type";
  EXPECT_EQ(fakes::LogLines(), std::vector<std::string>({line, line}));
  UseType("0");
}

}  // namespace
