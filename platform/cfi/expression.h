// SPDX-License-Identifier: Apache-2.0
// Evaluates DWARF expressions of call-frame information.
//
// Used where a frame's rules are more than offsets, on any thread and in signal handlers.
#pragma once

#include <cstdint>

#include "arch/unwind.h"
#include "platform/cfi/table_reader.h"
#include "platform/readable_stack.h"

namespace platform::cfi {

/// The value of `column` in a frame; false for a column that is not followed.
bool ReadColumn(const arch::Registers& registers, std::uint64_t column, std::uint64_t* value);

/// Evaluates `expression` in a frame with `registers`, on a stack of values that holds `*initial`,
/// unless that is null. Reads only `stack`. Returns false for an expression that is damaged, not
/// supported or reads other memory.
bool Evaluate(TableReader expression, const arch::Registers& registers,
              const std::uint64_t* initial, ReadableStack* stack, std::uint64_t* result);

}  // namespace platform::cfi
