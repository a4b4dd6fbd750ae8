// What the adapters of the platform's unwinder interface share.
//
// Called during an unwind, on any thread; on the allocation path for pcs alone.
#pragma once

#include <unwindstack/Unwinder.h>

#include <cstdint>
#include <string>
#include <vector>

namespace platform {

/// Readies the unwinder beneath. At start-up, before the first unwind, preferably while there is
/// one thread: what it sets up once is then neither paid for by an allocation nor met by two
/// threads at a time. Allocates.
void PrepareUnwinder();

}  // namespace platform

namespace unwindstack {

/// Tells which frames at the top of the stack are dropped. Neighbours mostly share a mapping, so
/// the last answer is kept.
class Unwinder::SkipTest {
 public:
  SkipTest(LocalUpdatableMaps* maps, const std::vector<std::string>* names)
      : maps_(maps), names_(names), done_(names == nullptr || names->empty()) {}

  /// To be asked about each frame in order. Once one was kept, all are.
  bool Drops(std::uint64_t pc);

 private:
  LocalUpdatableMaps* const maps_;
  const std::vector<std::string>* const names_;
  const LocalUpdatableMaps::CodeRange* range_ = nullptr;  // of the last frame dropped
  bool done_;
};

/// Names the function of `frame` from the dynamic symbols of the file that its pc is in. False when
/// it is not among them.
bool NameFromDynamicSymbols(FrameData& frame);

}  // namespace unwindstack
