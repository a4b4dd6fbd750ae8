// memcpy_s and memset_s: copies that refuse to write past a stated limit.
//
// Called by the record tables when an allocation is recorded, on any thread of the program, and by
// the report writer on its own.
#pragma once

#include <cerrno>
#include <cstddef>
#include <cstring>

namespace platform {

/// Copies `count` bytes from `source` to `destination`, which has room for `limit` bytes.
///
/// Returns 0 on success; EINVAL for a null pointer or a zero limit; ERANGE when `count` exceeds
/// `limit`, and then nothing is copied. The areas must not overlap.
/// Allocates nothing, takes no lock: safe in a signal handler.
inline int memcpy_s(void* destination, std::size_t limit, const void* source, std::size_t count) {
  if (destination == nullptr || source == nullptr || limit == 0) return EINVAL;
  if (count > limit) return ERANGE;
  std::memcpy(destination, source, count);
  return 0;
}

/// Fills `count` bytes at `destination`, which has room for `limit` bytes, with `value`.
///
/// Returns 0 on success; EINVAL for a null pointer or a zero limit; ERANGE when `count` exceeds
/// `limit`, and then nothing is written. Safe in a signal handler.
inline int memset_s(void* destination, std::size_t limit, int value, std::size_t count) {
  if (destination == nullptr || limit == 0) return EINVAL;
  if (count > limit) return ERANGE;
  std::memset(destination, value, count);
  return 0;
}

}  // namespace platform
