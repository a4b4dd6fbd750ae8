// What the platform answers on a device: its paths, pc widths and rules for libraries are fixed.
#include <gtest/gtest.h>

#include "platform/elf_policy.h"
#include "platform/paths.h"
#include "platform/pc_policy.h"

TEST(AndroidPlatform, FixedAnswers) {
  EXPECT_EQ(platform::ReportPath(), "/data/log/reliability/allocations_dump");
  EXPECT_EQ(platform::ExceptionDevicePath(), "/dev/kxlog_exception");
  EXPECT_EQ(platform::AcceptedPcWidth().min_digits, 8);
  EXPECT_EQ(platform::AcceptedPcWidth().max_digits, 10);
  EXPECT_FALSE(platform::AcceptsLibrary("libc.so.6"));
  // Relative to the load bias, however large.
  EXPECT_EQ(platform::DynamicAddress(5, 0x2000, 0x1000), 0x3000U);
}
