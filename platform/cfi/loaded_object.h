// SPDX-License-Identifier: Apache-2.0
// The program or library that holds an address: where it is mapped and where its call-frame
// information is.
//
// Used when a pc is met for the first time, on any thread and in signal handlers.
#pragma once

#include <elf.h>

#include <cstddef>
#include <cstdint>

namespace platform::cfi {

struct LoadedObject {
  /// All segments, and the gaps between them.
  std::uint64_t begin = 0;
  std::uint64_t end = 0;
  /// The difference between addresses in memory and in the file.
  std::uint64_t bias = 0;
  /// The program headers, in memory that stays readable while the object is loaded.
  const Elf64_Phdr* headers = nullptr;
  std::size_t header_count = 0;
  /// PT_GNU_EH_FRAME; 0 without one.
  std::uint64_t frame_header = 0;

  /// The end of the readable segment that holds `bytes` bytes at `address`; 0 when none does.
  std::uint64_t ReadableEnd(std::uint64_t address, std::size_t bytes) const;
};

/// Called once at start-up, before the first search.
void PrepareLoadedObjects();

/// Fills `object` with the one that holds `pc`. Returns false when none does, or when its program
/// headers cannot be read. `pc` lies in a function that the calling thread is in, so
/// the object stays loaded. Keeps errno; allocates nothing. Takes no lock on Linux with glibc 2.35
/// or later, elsewhere the dynamic linker's (see dl_iterate_phdr), which is recursive.
bool FindLoadedObject(std::uint64_t pc, LoadedObject* object);

/// FindLoadedObject through dl_iterate_phdr, for systems without anything better.
bool SearchLoadedObjects(std::uint64_t pc, LoadedObject* object);

}  // namespace platform::cfi
