// What the platform answers on a device: its paths and pc widths are fixed.
#include <gtest/gtest.h>

#include "platform/paths.h"
#include "platform/pc_policy.h"

TEST(AndroidPlatform, FixedAnswers) {
  EXPECT_EQ(platform::ReportPath(), "/data/log/reliability/allocations_dump");
  EXPECT_EQ(platform::ExceptionDevicePath(), "/dev/kxlog_exception");
  EXPECT_EQ(platform::AcceptedPcWidth().min_digits, 8);
  EXPECT_EQ(platform::AcceptedPcWidth().max_digits, 10);
}
