// The plain values that the record store keeps and hands out.
//
// Used by records/ itself and by whoever reads an export, on any thread; they hold no locks.
#pragma once

#include <cstdint>
#include <vector>

#include "unwindstack/Unwinder.h"

struct FrameInfoType;

/// Bit of an encoded size that says the block was made in a child of the zygote; the low 31 bits
/// are read as the size.
inline constexpr std::uint64_t kZygoteChildBit = std::uint64_t{1} << 31;

/// A record of the Java-native table.
struct PointerInfoType {
  std::uint64_t size = 0;
  std::uint64_t hash_index = 0;
};

/// A shared Java-native backtrace.
struct UnwindFrameInfoType {
  std::uint64_t references = 0;
  std::vector<unwindstack::FrameData> frames;
};

/// A group of live blocks: same size, same zygote mark, same pcs.
struct ListInfoType {
  std::uint64_t pointer = 0;
  std::uint64_t num = 0;
  std::uint64_t size = 0;
  bool zygote_child = false;
  /// Not owned; valid while the caller holds the sets' locks.
  FrameInfoType* frame_info = nullptr;
};

/// A group of Java-native records.
struct UnwindListInfoType {
  std::uint64_t pointer = 0;
  std::uint64_t num = 0;
  std::uint64_t size = 0;
  bool zygote_child = false;
  /// Not owned.
  UnwindFrameInfoType* unwind_info = nullptr;
};

/// A group as exported: owns copies, valid after the locks are released.
struct RecordStruct {
  std::uint64_t size = 0;
  std::uint64_t total = 0;
  std::uint64_t num = 0;
  std::uint64_t frame_count = 0;
  std::vector<std::uint64_t> frames;
  /// Seconds since the epoch, of at most 30 members.
  std::vector<std::int64_t> times;
};
