// What a forked child does with the locks that other threads of its parent held.
//
// Asked by the record store's fork handler, in the child, on its only thread.
#pragma once

namespace platform {

/// Whether the child frees all of them. Async-signal-safe.
///
/// Android: no. A child that is forked in the middle of a report inherits the report's lock, and
/// writes none of its own. Linux: yes. A child reports at its exit, and would wait for a thread
/// that it does not have.
bool ForkedChildFreesLocks();

}  // namespace platform
