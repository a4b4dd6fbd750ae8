// SPDX-License-Identifier: Apache-2.0
#include "tools/target/maps.h"

#include <algorithm>
#include <array>
#include <cinttypes>
#include <cstdio>
#include <sstream>

#include "tools/base/files.h"

namespace memleak {

std::vector<Mapping> ParseMaps(std::string_view maps) {
  constexpr std::string_view kDeleted = " (deleted)";
  std::vector<Mapping> mappings;
  std::istringstream lines{std::string(maps)};
  for (std::string line; std::getline(lines, line);) {
    Mapping mapping;
    std::array<char, 5> rights{};
    int path_start = 0;
    const int fields = std::sscanf(
        line.c_str(),
        "%" SCNx64 "-%" SCNx64 " %4s %" SCNx64 " %*s %" SCNu64 " %n",  // NOLINT(cert-err34-c)
        &mapping.start, &mapping.end, rights.data(), &mapping.offset, &mapping.inode, &path_start);
    if (fields != 5 || path_start == 0 || mapping.end < mapping.start) continue;
    mapping.executable = rights[2] == 'x';
    mapping.shared_writable = rights[1] == 'w' && rights[3] == 's';
    mapping.path = line.substr(static_cast<std::size_t>(path_start));
    if (mapping.IsFile() && mapping.path.ends_with(kDeleted)) {
      mapping.deleted = true;
      mapping.path.resize(mapping.path.size() - kDeleted.size());
    }
    mappings.push_back(std::move(mapping));
  }
  return mappings;
}

bool MapsLibrary(std::string_view maps, std::string_view library) {
  const std::vector<Mapping> mappings = ParseMaps(maps);
  return std::any_of(mappings.begin(), mappings.end(), [&](const Mapping& mapping) {
    return mapping.IsFile() && LastPart(mapping.path) == library;
  });
}

}  // namespace memleak
