// A walk that follows every register. Any thread, any context.
#include "platform/cfi/register_walk.h"

#include <algorithm>

#include "platform/cfi/expression.h"
#include "platform/cfi/frame_entry.h"
#include "platform/cfi/frame_row.h"
#include "platform/cfi/loaded_object.h"
#include "platform/cfi/rule.h"
#include "platform/readable.h"
#include "platform/readable_stack.h"

namespace platform::cfi {
namespace {

/// One step: from the registers of a frame to those of its caller's.
class RegisterStep {
 public:
  RegisterStep(const arch::Registers& from, ReadableStack* stack, arch::Registers* to)
      : from_(from), to_(*to), stack_(*stack) {}

  /// `pc` is an address in the instruction that the frame is at.
  bool Run(const FrameEntry& entry, std::uint64_t pc) {
    to_ = from_;
    const auto return_column = static_cast<unsigned>(entry.return_address_column);
    if (entry.return_address_column != arch::kReturnAddressColumn) return false;
    FrameRow row;
    if (!RunToRow(entry, pc, {return_column, return_column, return_column}, &row) ||
        !FindCfa(row.cfa)) {
      return false;
    }
    if (!TakeReturnAddress(row.rules[0])) return false;
    // The stack pointer is the CFA unless a rule says otherwise.
    to_.general[arch::kStackPointerColumn] = cfa_;
    for (unsigned column = 0; column < arch::kRegisterColumns; column += kFollowedColumns) {
      const FollowedColumns columns = {column, column + 1, column + 2};
      if (!RunToRow(entry, pc, columns, &row)) return false;
      for (std::size_t i = 0; i < kFollowedColumns; ++i) {
        if (columns[i] < arch::kRegisterColumns) Take(row.rules[i], &to_.general[columns[i]]);
      }
    }
    return true;
  }

 private:
  bool FindCfa(const CfaRule& rule) {
    if (rule.by_expression) return Evaluate(rule.expression(), from_, nullptr, &stack_, &cfa_);
    if (!ReadColumn(from_, rule.column, &cfa_)) return false;
    cfa_ += rule.value;
    return true;
  }

  bool TakeReturnAddress(const RegisterRule& rule) {
    const bool stays = rule.source == Source::kUnspecified || rule.source == Source::kSame;
    // Where a call pushes it, it never stays in a register.
    if (rule.source == Source::kUndefined || (stays && arch::kCallPushesReturnAddress))
      return false;
    if (stays) {
      to_.pc = from_.general[arch::kReturnAddressColumn % arch::kRegisterColumns];
    } else if (!Take(rule, &to_.pc)) {
      return false;
    }
    to_.pc = arch::StripReturnAddress(to_.pc);
    return true;
  }

  /// False, and `value` as it was, when it is not changed or cannot be found.
  bool Take(const RegisterRule& rule, std::uint64_t* value) {
    std::uint64_t address = 0;
    switch (rule.source) {
      case Source::kSavedAtOffset:
        return Read(cfa_ + rule.value, value);
      case Source::kIsOffset:
        *value = cfa_ + rule.value;
        return true;
      case Source::kRegister:
        return ReadColumn(from_, rule.value, value);
      case Source::kSavedAtExpression:
        return Evaluate(rule.expression(), from_, &cfa_, &stack_, &address) && Read(address, value);
      case Source::kIsExpression:
        return Evaluate(rule.expression(), from_, &cfa_, &stack_, value);
      default:
        return false;
    }
  }

  __attribute__((no_sanitize("address", "thread", "undefined"))) bool Read(std::uint64_t address,
                                                                           std::uint64_t* value) {
    if (from_.general[arch::kStackPointerColumn] - address - 1 < arch::kRedZoneBytes) {
      // A function that a signal interrupted may keep registers there.
      if (!CanRead(address, sizeof(*value))) return false;
      *value = *reinterpret_cast<const std::uint64_t*>(address);
      return true;
    }
    return stack_.Read(address, value);
  }

  const arch::Registers& from_;
  arch::Registers& to_;
  ReadableStack& stack_;
  std::uint64_t cfa_ = 0;
};

}  // namespace

/// Takes `registers`, whose stack pointer may be on another stack where `interrupted`. False when
/// that is no stack.
bool RegisterWalk::GoTo(const arch::Registers& registers, bool interrupted) {
  const std::uint64_t new_sp = registers.general[arch::kStackPointerColumn];
  if (registers.pc == 0) return false;
  if (interrupted) {
    if (!CanRead(new_sp, sizeof(std::uint64_t))) return false;
    stack_ = ReadableStack(new_sp);
  } else if (new_sp != sp() &&
             !stack_.Holds(new_sp - sizeof(std::uint64_t), sizeof(std::uint64_t))) {
    return false;
  }
  registers_ = registers;
  interrupted_ = interrupted;
  return true;
}

bool RegisterWalk::EnterInterrupted(std::uint64_t sp) {
  if (!stack_.Holds(sp, arch::kSignalFrameBytes)) return false;
  arch::Registers registers;
  arch::RegistersFromSignal(sp, &registers);
  return GoTo(registers, true);
}

bool RegisterWalk::Step() {
  const std::uint64_t address = interrupted_ ? pc() : pc() - 1;
  LoadedObject object;
  const bool found = FindLoadedObject(address, &object);
  if (IsSignalReturn(found ? &object : nullptr, pc())) return EnterInterrupted(sp());
  FrameEntry entry;
  arch::Registers caller;
  if (!found || !FindFrameEntry(object, address, &entry) ||
      !RegisterStep(registers_, &stack_, &caller).Run(entry, address)) {
    return false;
  }
  // A function that has made no frame yet leaves the stack pointer where it is. Only the innermost
  // can be there, or the walk would never end.
  const std::uint64_t caller_sp = caller.general[arch::kStackPointerColumn];
  if (!entry.is_signal_frame && (caller_sp < sp() || (caller_sp == sp() && !interrupted_))) {
    return false;
  }
  return GoTo(caller, entry.is_signal_frame);
}

}  // namespace platform::cfi
