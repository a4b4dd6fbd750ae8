// SPDX-License-Identifier: Apache-2.0
// The rules of both dynamic linkers.
#include "platform/elf_policy.h"

#include <elf.h>

#include <cstring>
#include <string_view>

namespace platform {
namespace {

constexpr std::string_view kSuffix = ".so";

bool EndsInSuffix(std::string_view name) {
  return name.size() >= kSuffix.size() && name.substr(name.size() - kSuffix.size()) == kSuffix;
}

/// Returns `name` without the ".<digits>" groups at its end.
std::string_view WithoutVersion(std::string_view name) {
  for (;;) {
    const std::size_t last = name.find_last_not_of("0123456789");
    if (last == std::string_view::npos || name[last] != '.' || last + 1 == name.size()) return name;
    name = name.substr(0, last);
  }
}

/// Whether glibc replaces the value of this entry by an address.
bool RelocatedByGlibc(std::int64_t tag) {
  switch (tag) {
    case DT_HASH:
    case DT_PLTGOT:
    case DT_STRTAB:
    case DT_SYMTAB:
    case DT_RELA:
    case DT_REL:
    case DT_JMPREL:
    case DT_VERSYM:
    case DT_GNU_HASH:
      return true;
    default:
      return false;
  }
}

}  // namespace

bool AndroidAcceptsLibrary(const char* name) {
  constexpr std::string_view kAppProcess = "app_process";
  return EndsInSuffix(name) || std::strncmp(name, kAppProcess.data(), kAppProcess.size()) == 0;
}

bool LinuxAcceptsLibrary(const char* name) {
  return AndroidAcceptsLibrary(name) || EndsInSuffix(WithoutVersion(name));
}

std::uint64_t AndroidDynamicAddress(std::int64_t /*tag*/, std::uint64_t value,
                                    std::uint64_t load_bias) {
  return load_bias + value;
}

std::uint64_t LinuxDynamicAddress(std::int64_t tag, std::uint64_t value, std::uint64_t load_bias) {
  return RelocatedByGlibc(tag) && value >= load_bias ? value : load_bias + value;
}

}  // namespace platform
