// SPDX-License-Identifier: Apache-2.0
// Compares the walk by call-frame information with the C++ runtime's unwinder, from a signal
// handler.
//
// Any thread; the handler may have interrupted anything. Allocates nothing.
#pragma once

#include <cstdint>
#include <string>

#include "arch/frame.h"

namespace comparison {

struct Totals {
  std::uint64_t places = 0;  // compared stacks
  std::uint64_t frames = 0;
  std::uint64_t differing = 0;  // places with different pcs
  std::uint64_t shorter = 0;    // of those, our stack is a part of the runtime's
  std::uint64_t longer = 0;     // of those, the runtime's stack is a part of ours
  std::uint64_t slow_steps = 0;
};

/// Prepares the runtime's unwinder for signal handlers. Call it once, before the first comparison.
void Prepare();

/// Whether `pc` is in the runtime's unwinder. While that enters an exception handler it changes its
/// own frame. Walking such a stack fails, and the unwinder itself crashes.
bool IsInRuntime(std::uint64_t pc);

/// Compares both stacks from the caller of the calling function outward. Keeps the first
/// differences as text.
void Compare();

Totals Result();
/// The first differences: the pcs of both stacks, each with its library and offset.
std::string Differences();

}  // namespace comparison
