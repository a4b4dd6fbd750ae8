// Counts this program's allocations, to show that a piece of code makes none.
#pragma once

#include <functional>

/// How many times malloc was called on any thread while `run` ran. Always 0 under a sanitizer,
/// whose own malloc cannot be replaced.
long AllocationsDuring(const std::function<void()>& run);
