// SPDX-License-Identifier: Apache-2.0
// The scripted capture: replaces backtrace/ and the platform's properties.
#include "tests/records/fake_capture.h"

#include <algorithm>

std::size_t BacktraceGet(std::uint64_t* frames, std::size_t max_frames,
                         std::vector<unwindstack::FrameData>& frame_data) {
  const Script& script = CurrentScript();
  const std::size_t count = std::min(max_frames, script.pcs.size());
  std::copy_n(script.pcs.begin(), count, frames);
  frame_data = script.java_frames;
  return count;
}
// The linker redirects the library's calls here.
extern "C" std::time_t __wrap_time(std::time_t* /*result*/) {
  return fake_time;
}
extern "C" int __system_property_get(const char* /*name*/, char* value) {
  return static_cast<int>(fake_property.copy(value, PROP_VALUE_MAX - 1));
}
