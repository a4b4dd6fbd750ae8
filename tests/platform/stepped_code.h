// SPDX-License-Identifier: Apache-2.0
// Code whose stacks are hard to walk, for the test that goes through it instruction by instruction.
//
// Built without frame pointers. Each function runs one construct to its end on the calling thread.
#pragma once

struct SteppedCode {
  const char* name;
  void (*run)();
};

extern const SteppedCode kSteppedCode[];
extern const int kSteppedCodeCount;
