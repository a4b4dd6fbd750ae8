// SPDX-License-Identifier: Apache-2.0
#include "tools/symbols/jit_names.h"

#include <sys/stat.h>

#include <charconv>
#include <fstream>
#include <string_view>

namespace memleak {

JitNames::JitNames(std::int64_t pid, std::int64_t started) {
  const std::string path = "/tmp/perf-" + std::to_string(pid) + ".map";
  struct stat state {};
  // Not a pipe, and not the file of an earlier process with this id.
  if (stat(path.c_str(), &state) != 0 || !S_ISREG(state.st_mode) || state.st_mtime < started)
    return;
  std::ifstream file(path, std::ios::binary);
  for (std::string line; std::getline(file, line);) {
    // "BEGIN BYTES NAME", both in hexadecimal.
    std::uint64_t begin = 0;
    std::uint64_t bytes = 0;
    const char* const end = line.data() + line.size();
    const auto first = std::from_chars(line.data(), end, begin, 16);
    if (first.ec != std::errc() || first.ptr == end || *first.ptr != ' ') continue;
    const auto second = std::from_chars(first.ptr + 1, end, bytes, 16);
    if (second.ec != std::errc() || second.ptr == end || *second.ptr != ' ') continue;
    functions_[begin] = {begin + bytes, std::string(second.ptr + 1, end)};
  }
}

std::string JitNames::NameOf(std::uint64_t pc) const {
  auto after = functions_.upper_bound(pc);
  if (after == functions_.begin()) return "";
  const auto& [end, name] = std::prev(after)->second;
  return pc < end ? name : "";
}

}  // namespace memleak
