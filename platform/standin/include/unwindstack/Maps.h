// Stand-in: the code that is mapped in this process, as far as an unwind needs it.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace unwindstack {

/// The libraries that were loaded when Parse was called. Only frames in libraries that never go
/// away are dropped by name, so there is no need to follow what is loaded and unloaded later.
class LocalUpdatableMaps {
 public:
  /// Lists the loaded libraries. False without memory. Once, before the first unwind. Takes the
  /// dynamic linker's lock; allocates.
  bool Parse();
  /// File name, without folders, of the library whose code holds `pc`. Empty if none was loaded
  /// there. Valid while this object lives. Any thread, any context.
  std::string_view LibraryAt(std::uint64_t pc) const;

 private:
  struct Code {
    std::uint64_t start;
    std::uint64_t end;
    std::string library;
  };
  std::vector<Code> code_;
};

}  // namespace unwindstack
