// Runs the instructions of a frame description entry up to a pc: where the caller's registers are
// while the function is there.
//
// Used when a pc is met for the first time, on any thread and in signal handlers.
#pragma once

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

struct RegisterRule {
  Source source = Source::kUnspecified;
  std::uint32_t expression_bytes = 0;
  /// The offset, the column or the expression's address.
  std::uint64_t value = 0;

  std::int64_t offset() const { return static_cast<std::int64_t>(value); }
  TableReader expression() const { return {value, value + expression_bytes}; }
};

/// The canonical frame address (CFA): register + offset, or what the expression yields.
struct CfaRule {
  bool by_expression = false;
  std::uint32_t expression_bytes = 0;
  std::uint64_t column = 0;
  /// The offset or the expression's address.
  std::uint64_t value = 0;

  std::int64_t offset() const { return static_cast<std::int64_t>(value); }
  TableReader expression() const { return {value, value + expression_bytes}; }
};

/// Columns that are followed in one run. All of a function's would take too much stack.
inline constexpr std::size_t kFollowedColumns = 3;
using FollowedColumns = std::array<unsigned, kFollowedColumns>;

struct FrameRow {
  CfaRule cfa;
  std::array<RegisterRule, kFollowedColumns> rules;
};

/// Fills `row` with the rules of `columns` at `pc`, which lies in the function of `entry`. Returns
/// false for instructions that make no sense or are not known.
bool RunToRow(const FrameEntry& entry, std::uint64_t pc, const FollowedColumns& columns,
              FrameRow* row);

}  // namespace platform::cfi
