// SPDX-License-Identifier: Apache-2.0
// A library that leaks. Any program can call it.
#include <cstddef>
#include <cstdlib>

namespace {
void* volatile latest;
}

/// Leaks on purpose: `count` blocks of `bytes` each.
extern "C" void RememberSessions(std::size_t count, std::size_t bytes) {
  for (std::size_t i = 0; i < count; ++i) latest = std::malloc(bytes);
  latest = nullptr;
}
