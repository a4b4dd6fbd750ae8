// What the unwinder's test calls in its fixture library, which holds an unwinder of its own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

struct Capture {
  bool names = false;
  bool skip = false;  // whether frames of the fixture library are to be skipped
  std::size_t limit = 64;
  std::vector<std::uint64_t> pcs;
};

extern "C" {
/// Unwinds two functions deep in the library.
void FixtureCapture(Capture* capture);
/// Calls `function` from inside the library.
void FixtureCall(void (*function)(Capture*), Capture* capture);
}
