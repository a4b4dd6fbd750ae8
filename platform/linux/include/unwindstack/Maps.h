// Linux stand-in: the mappings of this process, read again when an address is not among them.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "unwindstack/MapInfo.h"

namespace unwindstack {

class LocalUpdatableMaps {
 public:
  /// Reads /proc/self/maps. False when it cannot be read. Allocates.
  bool Parse();
  /// Reads it again: new mappings are added and gone ones dropped. Allocates.
  bool Reparse();
  /// The mapping that contains `pc`, or null; reads the maps again before it gives up.
  std::shared_ptr<MapInfo> Find(std::uint64_t pc);

 private:
  std::mutex mutex_;
  std::vector<std::shared_ptr<MapInfo>> maps_;  // ordered by start
};

}  // namespace unwindstack
