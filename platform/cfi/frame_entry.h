// SPDX-License-Identifier: Apache-2.0
// The frame description entry of a pc: the part of an object's .eh_frame that says how to unwind
// one function.
//
// Used when a pc is met for the first time, on any thread and in signal handlers. Entries may be
// damaged: nothing outside the object's readable segments is read.
#pragma once

#include <cstdint>

#include "platform/cfi/loaded_object.h"
#include "platform/cfi/table_reader.h"

namespace platform::cfi {

/// An entry and what it shares with others (its CIE).
struct FrameEntry {
  /// The function's first address.
  std::uint64_t begin = 0;
  /// Instructions for the whole function: the shared ones, then its own.
  TableReader shared_program;
  TableReader program;
  std::uint64_t code_alignment = 0;
  std::int64_t data_alignment = 0;
  std::uint64_t return_address_column = 0;
  /// How DW_CFA_set_loc writes an address.
  std::uint8_t address_encoding = 0;
  /// The function is what a signal handler returns to.
  bool is_signal_frame = false;
};

/// Fills `entry` with that of the function in `object` that holds `pc`. Returns false when there is
/// none, or none that can be read.
bool FindFrameEntry(const LoadedObject& object, std::uint64_t pc, FrameEntry* entry);

}  // namespace platform::cfi
