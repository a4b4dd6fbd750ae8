// SPDX-License-Identifier: Apache-2.0
// memcpy_s and memset_s: memory functions with a checked limit.
#pragma once

#include <cerrno>
#include <cstddef>
#include <cstring>

namespace platform {

/// Copies `count` bytes from `source` to `destination`, which has room for `limit` bytes. The areas
/// must not overlap.
///
/// Returns 0, EINVAL for a null pointer or a zero limit, or ERANGE if `count` exceeds `limit`.
/// Copies nothing in case of an error. Any thread. Async-signal-safe.
inline int memcpy_s(void* destination, std::size_t limit, const void* source, std::size_t count) {
  if (destination == nullptr || source == nullptr || limit == 0) return EINVAL;
  if (count > limit) return ERANGE;
  std::memcpy(destination, source, count);
  return 0;
}

/// Sets `count` bytes at `destination`, which has room for `limit` bytes, to `value`.
///
/// Returns 0, EINVAL for a null pointer or a zero limit, or ERANGE if `count` exceeds `limit`. Sets
/// nothing in case of an error. Any thread. Async-signal-safe.
inline int memset_s(void* destination, std::size_t limit, int value, std::size_t count) {
  if (destination == nullptr || limit == 0) return EINVAL;
  if (count > limit) return ERANGE;
  std::memset(destination, value, count);
  return 0;
}

}  // namespace platform
