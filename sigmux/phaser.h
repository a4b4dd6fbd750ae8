// SPDX-License-Identifier: Apache-2.0
// A phaser: lets a thread wait until no signal handler can still see an object that it removed.
//
// Readers enter and leave without locks and without allocating, so a signal handler can be a
// reader. A writer first unlinks an object, then drains the phaser. When the drain returns, every
// reader that could have seen the object has left. The signal multiplexer uses it: readers are
// dispatchers on any thread in signal context; the writer is an ordinary thread.
#pragma once

#include <atomic>
#include <cstdint>

/// One counter per phase. The low bits count the readers in the phase. Bit 63 marks a phase that is
/// being drained: it accepts no new readers. All bytes zero is a valid idle phaser, so a static one
/// works before phaser_init.
struct phaser_t {
  std::atomic<std::int64_t> counter[2];
};

/// Resets `phaser` to idle. The phaser must not be in use. Returns 0.
int phaser_init(phaser_t* phaser);

/// Enters as a reader. Returns the phase entered, 0 or 1; pass it to phaser_exit. Never waits for a
/// writer. Safe in a signal handler. A thread may enter several times.
unsigned phaser_enter(phaser_t* phaser);

/// Leaves `phase`, which phaser_enter returned. The last reader of a draining phase wakes the
/// writer, which may change errno. Safe in a signal handler.
void phaser_exit(phaser_t* phaser, unsigned phase);

/// Waits until every reader that entered before the call has left. New readers enter the phase that
/// is not being drained, so the drain always ends. May change errno. Only one thread may drain at a
/// time. The calling thread must not be a reader: it would wait for itself.
void phaser_drain(phaser_t* phaser);
