// SPDX-License-Identifier: Apache-2.0
// The profile: all live blocks, grouped by call stack. Linux writes a profile beside each report
// (docs/profile-format.md). On Android these functions do nothing.
#pragma once

#include <cstddef>
#include <cstdint>

#include "protocol/kinds.h"

class ReportText;

namespace profile {

class Text;
struct FrameTable;

/// Reads the program's name and arguments, and observes the unloading of libraries. Called once, by
/// track_initialize.
void Prepare();

/// Notes that recording of `kind` is switched on, or that all records are dropped. Any thread.
/// Async-signal-safe.
void NoteOn(protocol::MemTrackType kind);
void NoteClear();

/// Returns a number that grows with each dlclose. A new backtrace stores it. If several libraries
/// were loaded at one address, the number identifies the one that the backtrace belongs to. Any
/// thread. Async-signal-safe; takes no lock.
std::uint32_t CodeVersion();

/// Frees the lock of the list of objects in a forked child.
void FreeLocksInChild();

/// A copy of the live blocks at one moment, by stack. Used by the dump thread, under the initialise
/// lock. Its memory comes from mmap.
class Snapshot {
 public:
  Snapshot() = default;
  /// Frees the memory and releases the backtraces.
  ~Snapshot();
  Snapshot(const Snapshot&) = delete;
  Snapshot& operator=(const Snapshot&) = delete;

  /// Collects all records. The caller keeps record operations out. From now on, backtraces stay in
  /// place. Logs a lack of memory.
  void Collect();

  /// Writes the profile, if Collect succeeded, and replaces the previous one. Removes the previous
  /// one on failure and logs why. `report` is the text of the report of the same request.
  void Write(const ReportText& report);

 private:
  struct Row;

  void WriteHead(Text& out, const FrameTable& frames, const ReportText& report) const;
  void WriteStack(Text& out, FrameTable& frames, const Row& row, const Row* previous) const;

  Row* rows_ = nullptr;
  std::size_t bytes_ = 0;  ///< of the mapping
  std::uint32_t count_ = 0;
  std::int64_t time_ = 0;  ///< of Collect
};

}  // namespace profile
