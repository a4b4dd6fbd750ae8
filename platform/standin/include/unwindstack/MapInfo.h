// Stand-in: one mapping of the process, as the unwinder reports it with a frame.
//
// Made by the map reader; read by the unwinder and by whoever resolves frames, on any thread.
#pragma once

#include <cstdint>

#include "unwindstack/SharedString.h"

namespace unwindstack {

/// Never changes once made, so any number of threads may read it.
class MapInfo {
 public:
  MapInfo(std::uint64_t start, std::uint64_t end, std::uint64_t offset, std::uint64_t flags,
          SharedString name)
      : start_(start), end_(end), offset_(offset), flags_(flags), name_(std::move(name)) {}

  std::uint64_t start() const { return start_; }
  std::uint64_t end() const { return end_; }
  std::uint64_t offset() const { return offset_; }
  /// Protection bits as for mmap (PROT_READ and so on).
  std::uint64_t flags() const { return flags_; }
  const SharedString& name() const { return name_; }

 private:
  std::uint64_t start_;
  std::uint64_t end_;
  std::uint64_t offset_;
  std::uint64_t flags_;
  SharedString name_;
};

}  // namespace unwindstack
