// What a page of a library is to be left like after a word in it was written.
//
// Called by the hook engine on whichever thread does the hooking. Both systems' rules are compiled
// everywhere that has what they need; the function without a system in its name is the rule of the
// system this was built for.
#pragma once

#include <cstddef>

namespace platform {

/// PROT_ bits for the page at `page` (page-aligned, `bytes` long), to be asked for before the page
/// is made writable. Not for signal handlers; takes the loader's lock.
int ProtectionAfterWrite(const void* page, std::size_t bytes);

/// Android's linker protects every library's slots for good: read-only, whatever the page was.
int AndroidProtectionAfterWrite(const void* page, std::size_t bytes);

/// On Linux many libraries keep slots and variables on one page. Read-only where the loader has
/// made it so (PT_GNU_RELRO); elsewhere what the page has now, and readable and writable if that
/// cannot be found out.
int LinuxProtectionAfterWrite(const void* page, std::size_t bytes);

}  // namespace platform
