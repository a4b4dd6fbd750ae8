// SPDX-License-Identifier: Apache-2.0
#include "tools/base/proc_files.h"

#include <sstream>

namespace memleak {

std::string StatusField(const std::string& status, const std::string& name) {
  std::istringstream lines(status);
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with(name + ":\t")) return line.substr(name.size() + 2);
  }
  return "";
}

std::uint32_t EffectiveId(const std::string& status, const std::string& name) {
  // Real, effective, saved and file system id.
  std::istringstream ids(StatusField(status, name));
  std::uint32_t real = 0;
  std::uint32_t effective = 0;
  ids >> real >> effective;
  return effective;
}

std::int32_t InnerPid(const std::string& status, std::int32_t pid) {
  std::istringstream ids(StatusField(status, "NSpid"));
  while (ids >> pid) {
  }
  return pid;
}

std::optional<std::uint64_t> StartTicks(std::string_view stat) {
  // The second field, the name, may hold blanks and parentheses. The start time is the 20th after
  // it.
  constexpr int kFieldsBefore = 19;
  const std::size_t name_end = stat.rfind(')');
  if (name_end == std::string_view::npos) return std::nullopt;
  std::istringstream fields{std::string(stat.substr(name_end + 1))};
  std::string skipped;
  for (int field = 0; field < kFieldsBefore; ++field) fields >> skipped;
  std::uint64_t ticks = 0;
  if (!(fields >> ticks)) return std::nullopt;
  return ticks;
}

}  // namespace memleak
