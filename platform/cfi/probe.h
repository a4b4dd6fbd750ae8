// Asks the kernel whether memory can be read, without touching it.
//
// For addresses that nothing vouches for. Any thread, any context.
#pragma once

#include <cstddef>
#include <cstdint>

namespace platform::cfi {

/// Whether all of `bytes` bytes (more than 0) at `address` can be read now. One system call for
/// each page; keeps errno.
bool IsReadable(std::uint64_t address, std::size_t bytes);

}  // namespace platform::cfi
