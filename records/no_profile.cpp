// SPDX-License-Identifier: Apache-2.0
// Systems without a profile.
#include "records/profile.h"

namespace profile {

void Prepare() {}
void NoteOn(protocol::MemTrackType /*kind*/) {}
void NoteClear() {}
std::uint32_t CodeVersion() {
  return 0;
}
void FreeLocksInChild() {}

Snapshot::~Snapshot() = default;
void Snapshot::Collect() {}
void Snapshot::Write(const ReportText& /*report*/) {}

}  // namespace profile
