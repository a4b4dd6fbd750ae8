// A barrier between signal handlers and a thread that removes what they may be looking at.
//
// Readers enter and leave without locks and without allocating, so signal handlers may be readers.
// A writer takes something out of the readers' sight, then drains: when that returns, every reader
// that may still have seen it has left. Used by the signal multiplexer; readers run on any thread
// in signal context, the writer on an ordinary thread.
#pragma once

#include <atomic>
#include <cstdint>

/// Two counters, one for each phase: the low bits count the readers inside, bit 63 says that the
/// phase is being drained and takes no new ones. All bytes zero is a valid idle phaser, so a static
/// one works before phaser_init.
struct phaser_t {
  std::atomic<std::int64_t> counter[2];
};

/// Makes `phaser` idle. Nobody may be using it. Returns 0.
int phaser_init(phaser_t* phaser);

/// Enters as a reader and returns the phase entered, 0 or 1, which phaser_exit must be given.
/// Never waits for a writer. Safe in a signal handler; a thread may be inside several times.
unsigned phaser_enter(phaser_t* phaser);

/// Leaves the phase that phaser_enter returned. The last reader of a draining phase wakes the
/// writer, which may change errno. Safe in a signal handler.
void phaser_exit(phaser_t* phaser, unsigned phase);

/// Waits until every reader that entered before the call has left. Readers that come meanwhile go
/// into the phase that is not being drained, so it ends. May change errno. One thread at a time,
/// which the caller sees to; a thread that is itself a reader would wait for itself for ever.
void phaser_drain(phaser_t* phaser);
