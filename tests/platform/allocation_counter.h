// SPDX-License-Identifier: Apache-2.0
// Counts allocations, to test that code allocates nothing.
#pragma once

#include <functional>

/// Returns how often malloc is called on any thread while `run` runs. Always 0 under a sanitizer,
/// whose malloc cannot be replaced.
long AllocationsDuring(const std::function<void()>& run);
