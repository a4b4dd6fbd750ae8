// SPDX-License-Identifier: Apache-2.0
// Runs the instructions of a frame description entry up to a pc. The result describes where the
// caller's registers are while the function is at that pc.
//
// Used the first time a pc is captured, on any thread and in signal handlers.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>

#include "platform/cfi/frame_entry.h"
#include "platform/cfi/table_reader.h"

namespace platform::cfi {

/// Where one register of the caller is.
enum class Source : std::uint8_t {
  kUnspecified,        // no rule: unchanged
  kUndefined,          // lost; for the return address: the stack ends here
  kSame,               // unchanged
  kSavedAtOffset,      // at CFA + offset
  kIsOffset,           // the value is CFA + offset
  kRegister,           // in another register of this frame
  kSavedAtExpression,  // at the address that the expression computes
  kIsExpression,       // the value is the result of the expression
};

/// Where one register of the caller is, packed into one word because rows are built on small
/// stacks.
class RegisterRule {
 public:
  RegisterRule() = default;
  /// `value` is an offset or a column. Its upper three bits are dropped.
  RegisterRule(Source source, std::uint64_t value)
      : word_(value << kSourceBits | static_cast<std::uint64_t>(source)) {}
  /// Packs the expression in `block`. Returns false if its address or length does not fit.
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

/// The canonical frame address (CFA) in one word: register + offset, or an expression.
class CfaRule {
 public:
  /// No register.
  CfaRule() : CfaRule(kNoColumn, 0) {}
  /// The lower 48 bits of `offset` are kept.
  CfaRule(std::uint64_t column, std::uint64_t offset)
      : word_(offset << kValueShift | std::min(column, kNoColumn) << 1) {}
  /// Packs the expression in `block`. Returns false if its address or length does not fit.
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

/// Number of columns that one run computes. More would need too much stack.
inline constexpr std::size_t kFollowedColumns = 3;
using FollowedColumns = std::array<unsigned, kFollowedColumns>;

struct FrameRow {
  CfaRule cfa;
  std::array<RegisterRule, kFollowedColumns> rules;
};

/// Fills `row` with the rules of `columns` at `pc`, an address in the function of `entry`. Returns
/// false if an instruction is invalid or unknown.
bool RunToRow(const FrameEntry& entry, std::uint64_t pc, const FollowedColumns& columns,
              FrameRow* row);

}  // namespace platform::cfi
