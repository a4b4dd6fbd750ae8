// SPDX-License-Identifier: Apache-2.0
// A walk that tracks all saved registers. Any thread, any context.
#include "platform/cfi/register_walk.h"

#include <array>

#include "platform/cfi/expression.h"
#include "platform/cfi/frame_entry.h"
#include "platform/cfi/frame_row.h"
#include "platform/cfi/loaded_object.h"
#include "platform/cfi/rule.h"
#include "platform/readable.h"
#include "platform/readable_stack.h"

namespace platform::cfi {
namespace {

constexpr std::size_t kSp = arch::SavedIndex(arch::kStackPointerColumn);

// The columns of each run. Constants, because they take no stack.
constexpr FollowedColumns kReturnAddress = {arch::kReturnAddressColumn};
constexpr std::size_t kGroupCount =
    (arch::kSavedRegisters + kFollowedColumns - 1) / kFollowedColumns;
constexpr std::array<FollowedColumns, kGroupCount> MakeGroups() {
  std::array<FollowedColumns, kGroupCount> groups{};
  for (std::size_t i = 0; i < arch::kSavedRegisters; ++i) {
    groups[i / kFollowedColumns][i % kFollowedColumns] = arch::kSavedColumns[i];
  }
  return groups;
}
constexpr std::array<FollowedColumns, kGroupCount> kGroups = MakeGroups();

/// One step: from the registers of a frame to those of its caller.
class RegisterStep {
 public:
  RegisterStep(const arch::Registers& from, ReadableStack* stack, arch::Registers* to)
      : from_(from), to_(*to), stack_(*stack) {}

  /// `pc` is an address in the frame's current instruction.
  bool Run(const FrameEntry& entry, std::uint64_t pc) {
    to_ = from_;
    to_.interrupted = nullptr;
    if (entry.return_address_column != arch::kReturnAddressColumn) return false;
    FrameRow row;
    if (!RunToRow(entry, pc, kReturnAddress, &row) || !FindCfa(row.cfa) ||
        !TakeReturnAddress(row.rules[0])) {
      return false;
    }
    // Without a rule for the stack pointer, it is the CFA.
    to_.saved[kSp] = cfa_;
    for (const FollowedColumns& columns : kGroups) {
      if (!RunToRow(entry, pc, columns, &row)) return false;
      for (std::size_t i = 0; i < kFollowedColumns; ++i) {
        const std::size_t index = arch::SavedIndex(columns[i]);
        if (index < arch::kSavedRegisters) Take(row.rules[i], &to_.saved[index]);
      }
    }
    return true;
  }

 private:
  // Not inlined, so that their variables are not on the stack while RunToRow runs.
  __attribute__((noinline)) bool FindCfa(const CfaRule& rule) {
    if (rule.by_expression()) return Evaluate(rule.expression(), from_, nullptr, &stack_, &cfa_);
    if (!ReadColumn(from_, rule.column(), &cfa_)) return false;
    cfa_ += static_cast<std::uint64_t>(rule.offset());
    return true;
  }

  __attribute__((noinline)) bool TakeReturnAddress(const RegisterRule& rule) {
    const bool stays = rule.source() == Source::kUnspecified || rule.source() == Source::kSame;
    // If calls push the return address, it is never in a register.
    if (rule.source() == Source::kUndefined || (stays && arch::kCallPushesReturnAddress))
      return false;
    if (stays) {
      ReadColumn(from_, arch::kReturnAddressColumn, &to_.pc);
    } else if (!Take(rule, &to_.pc)) {
      return false;
    }
    to_.pc = arch::StripReturnAddress(to_.pc);
    return true;
  }

  /// Reads the register by `rule` into `value`. Returns false, with `value` unchanged, if the rule
  /// leaves the register unchanged or its value cannot be found.
  __attribute__((noinline)) bool Take(const RegisterRule& rule, std::uint64_t* value) {
    std::uint64_t address = 0;
    const auto number = static_cast<std::uint64_t>(rule.value());
    switch (rule.source()) {
      case Source::kSavedAtOffset:
        return Read(cfa_ + number, value);
      case Source::kIsOffset:
        *value = cfa_ + number;
        return true;
      case Source::kRegister:
        return ReadColumn(from_, number, value);
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
    if (from_.saved[kSp] - address - 1 < arch::kRedZoneBytes) {
      // A function that was interrupted by a signal may keep registers in its red zone.
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

enum class Place { kUnknown, kSignalReturn, kFunction };

/// Returns what is at `pc`. Fills `entry` with the entry of the function that contains `address`. A
/// separate function, so that `object` is not on the stack during the step.
__attribute__((noinline)) Place FindPlace(std::uint64_t address, std::uint64_t pc,
                                          FrameEntry* entry) {
  LoadedObject object;
  const bool found = FindLoadedObject(address, &object);
  if (IsSignalReturn(found ? &object : nullptr, pc)) return Place::kSignalReturn;
  return found && FindFrameEntry(object, address, entry) ? Place::kFunction : Place::kUnknown;
}

}  // namespace

/// Moves to `registers`. The stack pointer of an interrupted frame may be on another stack. Returns
/// false if the stack pointer is on no readable stack.
__attribute__((noinline)) bool RegisterWalk::GoTo(const arch::Registers& registers,
                                                  bool interrupted) {
  const std::uint64_t new_sp = registers.saved[kSp];
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

__attribute__((noinline)) bool RegisterWalk::EnterInterrupted(std::uint64_t sp) {
  if (!stack_.Holds(sp, arch::kSignalFrameBytes)) return false;
  arch::Registers registers;
  arch::RegistersFromSignal(sp, &registers);
  return GoTo(registers, true);
}

bool RegisterWalk::Step() {
  const std::uint64_t address = interrupted_ ? pc() : pc() - 1;
  FrameEntry entry;
  switch (FindPlace(address, pc(), &entry)) {
    case Place::kUnknown:
      return false;
    case Place::kSignalReturn:
      return EnterInterrupted(sp());
    case Place::kFunction:
      break;
  }
  return StepByEntry(entry, address);
}

/// Moves to the caller of the function of `entry`. `address` is in the frame's current instruction.
/// Not inlined, so that its variables are not on the stack while FindPlace runs.
__attribute__((noinline)) bool RegisterWalk::StepByEntry(const FrameEntry& entry,
                                                         std::uint64_t address) {
  arch::Registers caller;
  if (!RegisterStep(registers_, &stack_, &caller).Run(entry, address)) return false;
  // The caller's stack pointer is equal only if the function has not pushed anything. Only an
  // interrupted function can be in that state. Otherwise the walk could loop forever.
  const std::uint64_t caller_sp = caller.saved[kSp];
  if (!entry.is_signal_frame && (caller_sp < sp() || (caller_sp == sp() && !interrupted_))) {
    return false;
  }
  return GoTo(caller, entry.is_signal_frame);
}

}  // namespace platform::cfi
