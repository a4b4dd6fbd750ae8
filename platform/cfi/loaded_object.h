// SPDX-License-Identifier: Apache-2.0
// The program or library that contains an address: where it is mapped and where its call-frame
// information is.
//
// Used the first time a pc is captured, on any thread and in signal handlers.
#pragma once

#include <elf.h>

#include <cstddef>
#include <cstdint>

namespace platform::cfi {

struct LoadedObject {
  /// The range that contains all segments and the gaps between them.
  std::uint64_t begin = 0;
  std::uint64_t end = 0;
  /// The difference between addresses in memory and in the file.
  std::uint64_t bias = 0;
  /// The program headers, in memory that stays readable while the object is loaded.
  const Elf64_Phdr* headers = nullptr;
  std::size_t header_count = 0;
  /// Address of the PT_GNU_EH_FRAME segment; 0 if there is none.
  std::uint64_t frame_header = 0;

  /// Returns the end of the readable segment that contains the `bytes` bytes at `address`; 0 if
  /// there is none.
  std::uint64_t ReadableEnd(std::uint64_t address, std::size_t bytes) const;
};

/// Called once at start-up, before the first search.
void PrepareLoadedObjects();

/// Fills `object` with the object that contains `pc`. Returns false if there is none or its program
/// headers cannot be read. `pc` must be in an active function of the calling thread, so that the
/// object stays loaded. Keeps errno; allocates nothing. With glibc 2.35 or later it takes no lock;
/// otherwise it takes the dynamic linker's recursive lock (see dl_iterate_phdr).
bool FindLoadedObject(std::uint64_t pc, LoadedObject* object);

/// FindLoadedObject by dl_iterate_phdr, for systems without _dl_find_object.
bool SearchLoadedObjects(std::uint64_t pc, LoadedObject* object);

}  // namespace platform::cfi
