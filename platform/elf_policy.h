// What the dynamic linkers differ in: which objects count as libraries, and how the addresses in a
// dynamic section are to be read.
//
// Called by the index of loaded libraries on any thread, also inside dl_iterate_phdr. Both systems'
// rules are compiled everywhere; the functions without a system in their name are the rules of the
// system this was built for. All are pure functions.
#pragma once

#include <cstdint>

namespace platform {

/// Whether an object of this name (as the loader gives it, not null) is to be indexed on Android:
/// names of at least 3 characters that end in ".so", and names that begin with "app_process".
bool AndroidAcceptsLibrary(const char* name);

/// As on Android, and names that carry a version: ".so" and then one or more ".digits".
bool LinuxAcceptsLibrary(const char* name);

/// The rule of this system.
bool AcceptsLibrary(const char* name);

/// The address that the dynamic entry `tag` with the value `value` names, in an object with this
/// load bias. Android's linker leaves values as they are in the file: relative to the load bias.
std::uint64_t AndroidDynamicAddress(std::int64_t tag, std::uint64_t value, std::uint64_t load_bias);

/// glibc makes the values of the tables that it uses itself absolute, in place. It does not where
/// the section is read-only (the vdso), and other C libraries never do: a value below the load bias
/// is still relative.
std::uint64_t LinuxDynamicAddress(std::int64_t tag, std::uint64_t value, std::uint64_t load_bias);

/// The rule of this system.
std::uint64_t DynamicAddress(std::int64_t tag, std::uint64_t value, std::uint64_t load_bias);

}  // namespace platform
