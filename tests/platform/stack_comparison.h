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
  std::uint64_t places = 0;  // stacks that were compared
  std::uint64_t frames = 0;
  std::uint64_t differing = 0;  // places whose pcs are not equal
  std::uint64_t shorter = 0;    // of those, where ours has a part of the runtime's
  std::uint64_t longer = 0;     // of those, where the runtime's is a part of ours
  std::uint64_t slow_steps = 0;
};

/// Makes the runtime's unwinder ready for signal handlers. Once, before the first comparison.
void Prepare();

/// Whether `pc` lies in the runtime's unwinder. While it lands an exception it rewrites its own
/// frame: then nobody can walk the stack, and it crashes when it tries.
bool IsInRuntime(std::uint64_t pc);

/// Compares both stacks from the caller of the calling function outward. The first differences are
/// kept as text.
void Compare();

Totals Result();
/// The first differences: the pcs of both stacks, each with its library and offset.
std::string Differences();

}  // namespace comparison
