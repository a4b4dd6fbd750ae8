// SPDX-License-Identifier: Apache-2.0
// Runs the instructions of a frame description entry up to a pc: where the caller's registers are
// while the function is there.
//
// Used when a pc is met for the first time, on any thread and in signal handlers.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>

#include "platform/cfi/frame_entry.h"
#include "platform/cfi/table_reader.h"

namespace platform::cfi {

/// How one register of the caller is found.
enum class Source : std::uint8_t {
  kUnspecified,        // not mentioned: as in this frame
  kUndefined,          // lost; for the return address: the stack ends here
  kSame,               // as in this frame
  kSavedAtOffset,      // at CFA + offset
  kIsOffset,           // CFA + offset
  kRegister,           // in the register of another column of this frame
  kSavedAtExpression,  // at the address that the expression yields
  kIsExpression,       // what the expression yields
};

/// How one register of the caller is found, in one word: rows are made on small stacks.
class RegisterRule {
 public:
  RegisterRule() = default;
  /// `value` is an offset or a column. Its upper three bits get lost.
  RegisterRule(Source source, std::uint64_t value)
      : word_(value << kSourceBits | static_cast<std::uint64_t>(source)) {}
  /// `block` is an expression. False if it cannot be one of compiled code.
  static bool Pack(Source source, const TableReader& block, RegisterRule* rule) {
    const std::uint64_t bytes = block.end() - block.address();
    if (block.end() >> kAddressBits != 0 || bytes >> kLengthBits != 0) return false;
    *rule = RegisterRule(source, bytes << kAddressBits | block.address());
    return true;
  }

  Source source() const { return static_cast<Source>(word_ & ((1 << kSourceBits) - 1)); }
  /// The offset or the column.
  std::int64_t value() const { return static_cast<std::int64_t>(word_) >> kSourceBits; }
  TableReader expression() const {
    const std::uint64_t address = word_ >> kSourceBits & ((std::uint64_t{1} << kAddressBits) - 1);
    return {address, address + (word_ >> (kSourceBits + kAddressBits))};
  }

 private:
  static constexpr unsigned kSourceBits = 3;
  static constexpr unsigned kAddressBits = 48;
  static constexpr unsigned kLengthBits = 64 - kSourceBits - kAddressBits;

  std::uint64_t word_ = static_cast<std::uint64_t>(Source::kUnspecified);
};

/// The canonical frame address (CFA) in one word: register + offset, or what an expression yields.
class CfaRule {
 public:
  /// No register.
  CfaRule() : CfaRule(kNoColumn, 0) {}
  /// Offsets have 48 bits.
  CfaRule(std::uint64_t column, std::uint64_t offset)
      : word_(offset << kValueShift | std::min(column, kNoColumn) << 1) {}
  /// `block` is an expression. False if it cannot be one of compiled code.
  static bool Pack(const TableReader& block, CfaRule* rule) {
    const std::uint64_t bytes = block.end() - block.address();
    if (block.end() >> (64 - kValueShift) != 0 || bytes > kNoColumn) return false;
    rule->word_ = block.address() << kValueShift | bytes << 1 | 1;
    return true;
  }

  bool by_expression() const { return (word_ & 1) != 0; }
  std::uint64_t column() const { return word_ >> 1 & kNoColumn; }
  std::int64_t offset() const { return static_cast<std::int64_t>(word_) >> kValueShift; }
  TableReader expression() const {
    const std::uint64_t address = word_ >> kValueShift;
    return {address, address + column()};
  }

 private:
  static constexpr unsigned kValueShift = 16;
  static constexpr std::uint64_t kNoColumn = 0x7fff;

  std::uint64_t word_;
};

/// Columns that are followed in one run. All of a function's would take too much stack.
inline constexpr std::size_t kFollowedColumns = 3;
using FollowedColumns = std::array<unsigned, kFollowedColumns>;

struct FrameRow {
  CfaRule cfa;
  std::array<RegisterRule, kFollowedColumns> rules;
};

/// Fills `row` with the rules of `columns` at `pc`, which lies in the function of `entry`. Returns
/// false for invalid or unknown instructions.
bool RunToRow(const FrameEntry& entry, std::uint64_t pc, const FollowedColumns& columns,
              FrameRow* row);

}  // namespace platform::cfi
