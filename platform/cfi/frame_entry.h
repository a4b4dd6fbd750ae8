// SPDX-License-Identifier: Apache-2.0
// The frame description entry of a pc: the part of an object's .eh_frame that describes how to
// unwind one function.
//
// Used the first time a pc is captured, on any thread and in signal handlers. Entries may be
// damaged, so reads never leave the object's readable segments.
#pragma once

#include <cstdint>

#include "platform/cfi/loaded_object.h"
#include "platform/cfi/table_reader.h"

namespace platform::cfi {

/// A frame description entry with the data of its CIE, which several entries share.
struct FrameEntry {
  /// The function's first address.
  std::uint64_t begin = 0;
  /// The function's instructions: those of the CIE first, then those of the entry.
  TableReader shared_program;
  TableReader program;
  std::uint64_t code_alignment = 0;
  std::int64_t data_alignment = 0;
  std::uint64_t return_address_column = 0;
  /// The encoding of an address in DW_CFA_set_loc.
  std::uint8_t address_encoding = 0;
  /// Whether the function is the code that a signal handler returns to.
  bool is_signal_frame = false;
};

/// Fills `entry` with the entry of the function in `object` that contains `pc`. Returns false if
/// there is none or it cannot be read.
bool FindFrameEntry(const LoadedObject& object, std::uint64_t pc, FrameEntry* entry);

}  // namespace platform::cfi
