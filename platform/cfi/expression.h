// SPDX-License-Identifier: Apache-2.0
// Evaluates DWARF expressions of call-frame information.
//
// Used if a frame's rules are not plain offsets. Any thread; safe in signal handlers.
#pragma once

#include <cstdint>

#include "arch/unwind.h"
#include "platform/cfi/table_reader.h"
#include "platform/readable_stack.h"

namespace platform::cfi {

/// Reads the value of `column` in a frame into `value`. Returns false if `registers` lacks it.
bool ReadColumn(const arch::Registers& registers, std::uint64_t column, std::uint64_t* value);

/// Evaluates `expression` in a frame with `registers`. The expression's stack of values starts with
/// `*initial`, or empty if `initial` is null. Reads memory only from `stack`. Returns false if the
/// expression is damaged, is not supported or reads other memory.
bool Evaluate(TableReader expression, const arch::Registers& registers,
              const std::uint64_t* initial, ReadableStack* stack, std::uint64_t* result);

}  // namespace platform::cfi
