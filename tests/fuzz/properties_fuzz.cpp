// SPDX-License-Identifier: Apache-2.0
// Fuzz target: the properties file, which a user writes. One thread.
//
// The reader uses a small buffer and never has a whole line. The target compares it with a reader
// that has the whole file.
#include <stdlib.h>
#include <sys/system_properties.h>

#include <array>
#include <cstring>
#include <string>
#include <string_view>

#include "platform/linux/environment.h"
#include "tests/fuzz/support.h"

namespace {

constexpr std::size_t kLimit = PROP_VALUE_MAX - 1;

std::string ExpectedValue(std::string_view text, const std::string& name) {
  const std::string start = name + "=";
  std::string expected;
  while (!text.empty()) {
    std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(line.size() + 1, text.size()));
    if (line.substr(0, start.size()) != start) continue;
    line.remove_prefix(start.size());
    if (line.size() <= kLimit && !line.empty() && line.back() == '\r') line.remove_suffix(1);
    line = line.substr(0, kLimit);
    expected = line.substr(0, line.find('\0'));
  }
  return expected;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const fuzz::MemoryFile file;
  static const bool captured = [] {
    setenv("MEMLEAK_TRACKER_ROOT", "/proc/self/no_such_folder", 1);
    setenv("MEMLEAK_TRACKER_PROPERTIES", file.Path().c_str(), 1);
    platform::CaptureEnvironment();
    return true;
  }();
  fuzz::Require(captured, "the environment is set");
  file.Write(data, size);
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  for (const std::string name : {"a", "aab", "vastel.memleak.backtacetype"}) {
    std::array<char, PROP_VALUE_MAX + 8> value{};
    value.fill('#');
    const int length = __system_property_get(name.c_str(), value.data());
    const std::string expected = ExpectedValue(text, name);
    fuzz::Require(static_cast<std::size_t>(length) == expected.size() &&
                      std::memcmp(value.data(), expected.c_str(), expected.size() + 1) == 0,
                  "a property has the value of its last line");
    for (std::size_t i = PROP_VALUE_MAX; i < value.size(); ++i) {
      fuzz::Require(value[i] == '#', "a value stays within its room");
    }
  }
  return 0;
}
