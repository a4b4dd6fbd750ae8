// SPDX-License-Identifier: Apache-2.0
// Converts call-frame information to rules. Any thread, any context.
#include "platform/cfi/rule.h"

#include "platform/cfi/frame_entry.h"
#include "platform/cfi/frame_row.h"
#include "platform/readable.h"

namespace platform::cfi {
namespace {

constexpr std::int64_t kWordBytes = sizeof(std::uint64_t);
constexpr std::uint8_t kBreg0 = 0x70;  // DW_OP_breg0, an offset follows
constexpr std::uint8_t kDerefOperation = 0x06;

constexpr FollowedColumns kColumns = {arch::kReturnAddressColumn, arch::kFramePointerColumn,
                                      arch::kStackPointerColumn};

/// Stores `value` in `word` as a signed number of `bits` bits at `shift`. Returns false if it does
/// not fit.
bool PackField(std::int64_t value, unsigned shift, unsigned bits, std::uint64_t* word) {
  const std::int64_t limit = std::int64_t{1} << (bits - 1);
  if (value < -limit || value >= limit) return false;
  const std::uint64_t mask = (std::uint64_t{1} << bits) - 1;
  *word |= (static_cast<std::uint64_t>(value) & mask) << shift;
  return true;
}

/// As PackField, but converts `bytes` to words. Returns false also if `bytes` is not a multiple of
/// the word size.
bool PackWords(std::int64_t bytes, unsigned shift, unsigned bits, std::uint64_t* word) {
  return bytes % kWordBytes == 0 && PackField(bytes / kWordBytes, shift, bits, word);
}

/// Whether `expression` is frame pointer + offset, or the word at that address if `dereferenced`.
bool IsFramePointerPlus(TableReader expression, bool dereferenced, std::int64_t* offset) {
  if (expression.Take<std::uint8_t>() != kBreg0 + arch::kFramePointerColumn) return false;
  *offset = expression.TakeSigned();
  if (dereferenced && expression.Take<std::uint8_t>() != kDerefOperation) return false;
  return expression.ok() && expression.empty();
}

bool TakeCfa(const CfaRule& cfa, Rule::Step* step) {
  step->distance = cfa.offset();
  if (cfa.by_expression()) {
    step->kind = Rule::kSavedStep;
    return IsFramePointerPlus(cfa.expression(), true, &step->distance);
  }
  step->kind = cfa.column() == arch::kStackPointerColumn ? Rule::kStackStep : Rule::kFrameStep;
  return step->distance > 0 &&
         (cfa.column() == arch::kStackPointerColumn || cfa.column() == arch::kFramePointerColumn);
}

bool TakeFramePointer(const RegisterRule& rule, Rule::Step* step) {
  switch (rule.source()) {
    case Source::kUnspecified:
    case Source::kUndefined:
    case Source::kSame:
      return true;
    case Source::kSavedAtOffset:
      step->saves_frame_pointer = true;
      step->frame_pointer = rule.value();
      return true;
    case Source::kSavedAtExpression:
      // In a frame whose CFA is saved, compilers give the place relative to the frame pointer.
      step->saves_frame_pointer = true;
      step->from_register = true;
      return step->kind == Rule::kSavedStep && arch::kCallPushesReturnAddress &&
             IsFramePointerPlus(rule.expression(), false, &step->frame_pointer);
    default:
      return false;
  }
}

/// Packs `step`, whose places are relative to the CFA. Large frames may have their frame record at
/// the bottom, too far from the CFA. Then the places are packed relative to the register.
bool PackNear(Rule::Step step, Rule* rule) {
  if (Rule::Pack(step, rule)) return true;
  if (step.from_register || step.kind == Rule::kSavedStep) return false;
  step.from_register = true;
  step.return_address += step.distance;
  step.frame_pointer += step.distance;
  return Rule::Pack(step, rule);
}

/// Not inlined, so that its variables are not on the stack while RunToRow runs.
__attribute__((noinline)) Rule FromRow(const FrameRow& row) {
  const RegisterRule& return_address = row.rules[0];
  const RegisterRule& stack_pointer = row.rules[2];
  if (return_address.source() == Source::kUndefined) return Rule::Other::kEnd;
  Rule::Step step;
  step.return_address = return_address.value();
  Rule rule;
  const bool pushed = return_address.value() == -kWordBytes;
  if (return_address.source() != Source::kSavedAtOffset ||
      (arch::kCallPushesReturnAddress && !pushed) ||
      stack_pointer.source() != Source::kUnspecified || !TakeCfa(row.cfa, &step) ||
      !TakeFramePointer(row.rules[1], &step) || !PackNear(step, &rule)) {
    return Rule::Other::kSlow;
  }
  return rule;
}

}  // namespace

bool Rule::Pack(const Step& step, Rule* rule) {
  std::uint64_t word = static_cast<std::uint64_t>(step.kind) << kGenerationBits;
  // All places are between the base register and the CFA, so a walk needs to check only the CFA.
  // For a saved CFA the walk checks each place.
  const std::int64_t base = step.from_register ? 0 : -step.distance;
  const auto is_within = [&step, base](std::int64_t place) {
    return step.kind == kSavedStep || (place >= base && place + kWordBytes <= base + step.distance);
  };
  if (step.kind != kSavedStep &&
      step.distance < (arch::kCallPushesReturnAddress ? kWordBytes : 0)) {
    return false;
  }
  if (!arch::kCallPushesReturnAddress) {
    if (!is_within(step.return_address)) return false;
    if (!PackWords(step.return_address, kReturnAddressShift, kPlaceBits, &word)) return false;
  }
  if (step.saves_frame_pointer) {
    if (!is_within(step.frame_pointer)) return false;
    if (!PackWords(step.frame_pointer, kFramePointerShift, kPlaceBits, &word)) return false;
    word |= kSavesFramePointer;
  }
  if (step.from_register) word |= kFromRegister;
  if (step.distance % kWordBytes != 0 ||
      !PackField(step.distance, kDistanceShift, kDistanceBits, &word)) {
    return false;
  }
  *rule = Rule(word);
  return true;
}

bool IsSignalReturn(const LoadedObject* object, std::uint64_t pc) {
  if (object != nullptr) {
    return object->ReadableEnd(pc, arch::kSigreturnBytes) != 0 && arch::IsSigreturn(pc);
  }
  return !arch::kSigreturnIsInObject && CanRead(pc, arch::kSigreturnBytes) && arch::IsSigreturn(pc);
}

Rule MakeRule(const LoadedObject* object, std::uint64_t return_address) {
  if (IsSignalReturn(object, return_address)) return Rule::Other::kSignal;
  const std::uint64_t pc = return_address - 1;
  FrameEntry entry;
  FrameRow row;
  if (object == nullptr || !FindFrameEntry(*object, pc, &entry)) return Rule::Other::kEnd;
  if (entry.is_signal_frame || entry.return_address_column != arch::kReturnAddressColumn) {
    return Rule::Other::kSlow;
  }
  if (!RunToRow(entry, pc, kColumns, &row)) return Rule::Other::kEnd;
  return FromRow(row);
}

}  // namespace platform::cfi
