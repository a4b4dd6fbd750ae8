// SPDX-License-Identifier: Apache-2.0
// The plain values that the record store keeps and returns.
//
// Used by records/ and by callers of the leak-info export, on any thread. They hold no locks.
#pragma once

#include <cstdint>
#include <vector>

#include "unwindstack/Unwinder.h"

struct FrameInfoType;

/// Bit of an encoded size that marks a block made in a child of the zygote. The low 31 bits are the
/// size.
inline constexpr std::uint64_t kZygoteChildBit = std::uint64_t{1} << 31;

/// A record of the Java-native table.
struct PointerInfoType {
  /// Encoded size (see kZygoteChildBit).
  std::uint64_t size = 0;
  std::uint64_t hash_index = 0;
};

/// A shared Java-native backtrace.
struct UnwindFrameInfoType {
  std::uint64_t references = 0;
  std::vector<unwindstack::FrameData> frames;
};

/// A group of live blocks with the same size, zygote mark and pcs.
struct ListInfoType {
  std::uint64_t pointer = 0;
  std::uint64_t num = 0;
  std::uint64_t size = 0;
  bool zygote_child = false;
  /// Not owned; valid while the caller holds the locks of all sets.
  FrameInfoType* frame_info = nullptr;
};

/// A group of Java-native records.
struct UnwindListInfoType {
  std::uint64_t pointer = 0;
  std::uint64_t num = 0;
  std::uint64_t size = 0;
  bool zygote_child = false;
  /// Not owned; valid until the next clear.
  UnwindFrameInfoType* unwind_info = nullptr;
};

/// A group as exported. Owns copies, so it stays valid after the locks are released.
struct RecordStruct {
  std::uint64_t size = 0;
  std::uint64_t total = 0;
  std::uint64_t num = 0;
  std::uint64_t frame_count = 0;
  std::vector<std::uint64_t> frames;
  /// Seconds since the epoch; at most PointerData::kMaxTimes entries.
  std::vector<std::int64_t> times;
};
