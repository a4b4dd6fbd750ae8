// SPDX-License-Identifier: Apache-2.0
// The phaser alone: a drain waits exactly for the readers that entered before it.
#include "sigmux/phaser.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace {

phaser_t phaser;

TEST(Phaser, DrainWaitsForReadersOfBothPhasesAndLeavesNewOnesIn) {
  ASSERT_EQ(phaser_init(&phaser), 0);
  phaser_drain(&phaser);  // returns: there are no readers

  const unsigned first = phaser_enter(&phaser);
  EXPECT_EQ(first, 0U);
  std::atomic<bool> drained{false};
  std::thread writer([&] {
    phaser_drain(&phaser);
    drained = true;
  });
  while (phaser.counter[0].load() >= 0) std::this_thread::yield();
  const unsigned second = phaser_enter(&phaser);
  EXPECT_EQ(second, 1U);
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(drained);

  phaser_exit(&phaser, first);
  while (phaser.counter[1].load() >= 0) std::this_thread::yield();
  EXPECT_EQ(phaser_enter(&phaser), 0U);  // the first phase is open again
  EXPECT_FALSE(drained);
  phaser_exit(&phaser, second);
  writer.join();  // although a newer reader is still inside
  EXPECT_EQ(phaser.counter[0].load(), 1);
  phaser_exit(&phaser, 0);
}

}  // namespace
