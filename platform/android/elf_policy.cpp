// SPDX-License-Identifier: Apache-2.0
// The rules of Android's dynamic linker.
#include "platform/elf_policy.h"

namespace platform {

bool AcceptsLibrary(const char* name) {
  return AndroidAcceptsLibrary(name);
}

std::uint64_t DynamicAddress(std::int64_t tag, std::uint64_t value, std::uint64_t load_bias) {
  return AndroidDynamicAddress(tag, value, load_bias);
}

}  // namespace platform
