// SPDX-License-Identifier: Apache-2.0
// Calls the tracker to count its records.
#include "host/record_count.h"

#include <atomic>

#include "host/exports.h"
#include "host/state.h"

// protocol::kRecordCounter.
MEMLEAK_VARIABLE std::atomic<protocol::CountRecords> memleak_record_counter;
std::atomic<protocol::CountRecords> memleak_record_counter{nullptr};

namespace host {

bool CountWaits() {
  const State& state = CurrentState();
  return state.counts_wanted.load() != state.counts_done.load();
}

void CountRecords() {
  State& state = CurrentState();
  const uint32_t wanted = state.counts_wanted.load();
  if (const auto count = memleak_record_counter.load()) count();
  state.counts_done.store(wanted);
  WakeWaiters(state.counts_done);
}

}  // namespace host
