// SPDX-License-Identifier: Apache-2.0
// The times of the rounds of `watch`. Pure functions; any thread.
#pragma once

#include <chrono>
#include <optional>

namespace memleak {

/// When the round after the one at `last` is due, or nothing at the end. All times count from the
/// first round. Rounds that are late by more than `every` are skipped, except the last one before
/// `whole` (0: without end).
std::optional<std::chrono::milliseconds> NextDue(std::chrono::milliseconds last,
                                                 std::chrono::milliseconds every,
                                                 std::chrono::milliseconds whole,
                                                 std::chrono::milliseconds now);

}  // namespace memleak
