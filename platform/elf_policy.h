// SPDX-License-Identifier: Apache-2.0
// Differences between Android's and glibc's dynamic linker.
//
// Both sets of rules are compiled everywhere; the functions without a system in their name use
// those of the system that the build is for. All are pure functions: any thread, any context.
#pragma once

#include <cstdint>

namespace platform {

/// Returns whether Android indexes an object of this name: one that ends in ".so" or starts with
/// "app_process". `name` is the dynamic linker's and not null.
bool AndroidAcceptsLibrary(const char* name);

/// AndroidAcceptsLibrary, and names with a version: ".so" and one or more ".<digits>".
bool LinuxAcceptsLibrary(const char* name);

/// The rule of this system.
bool AcceptsLibrary(const char* name);

/// Returns the address in memory of the table that the dynamic entry `tag` with this `value` names,
/// in an object with this load bias. Android's linker does not change the values of the file, which
/// are relative to the load bias.
std::uint64_t AndroidDynamicAddress(std::int64_t tag, std::uint64_t value, std::uint64_t load_bias);

/// glibc replaces the values of the tables that it uses by addresses, except in read-only dynamic
/// sections (the vDSO). Other C libraries never do. So a value below the load bias is relative.
std::uint64_t LinuxDynamicAddress(std::int64_t tag, std::uint64_t value, std::uint64_t load_bias);

/// The rule of this system.
std::uint64_t DynamicAddress(std::int64_t tag, std::uint64_t value, std::uint64_t load_bias);

}  // namespace platform
