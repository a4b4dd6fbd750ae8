// SPDX-License-Identifier: Apache-2.0
#include "tools/target/mapped_loader.h"

#include "protocol/protocol.h"
#include "tools/base/files.h"
#include "tools/base/user_error.h"
#include "tools/target/elf_file.h"
#include "tools/target/elf_symbols.h"
#include "tools/target/find_state.h"
#include "tools/target/inspect.h"
#include "tools/target/loaded_libraries.h"
#include "tools/target/maps.h"

namespace memleak {

std::vector<MappedLoader> MappedLoader::Find(const ProcessInfo& process) {
  std::vector<MappedLoader> found;
  for (const Mapping& mapping : ParseMaps(ReadMaps(process.pid))) {
    if (mapping.offset != 0 || LastPart(mapping.path) != protocol::kPreloadLibrary) continue;
    const std::string path = FileOf(process, mapping);
    const auto file = ReadDynamicFile(path, {});
    if (file) found.push_back({mapping.path, mapping.start - file->first_address, path});
  }
  return found;
}

std::uint64_t MappedLoader::Address(const char* name) const {
  for (const ElfSymbol& symbol : ReadDefinitions(file)) {
    if (symbol.name == name) return bias + symbol.address;
  }
  throw UserError(std::string("the loader has no ") + name,
                  "use the loader of the same build with --libdir DIR");
}

}  // namespace memleak
