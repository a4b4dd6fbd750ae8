// SPDX-License-Identifier: Apache-2.0
// Evaluates DWARF expressions (DWARF 5, section 2.5). Any thread, any context.
#include "platform/cfi/expression.h"
#include "platform/readable_stack.h"

#include <array>
#include <cstddef>
#include <utility>

namespace platform::cfi {
namespace {

constexpr std::size_t kMaxValues = 16;  // of the expression's stack
constexpr unsigned kWordBits = 64;

/// The operations that linkers, compilers and hand-written assembly use in call-frame information.
/// Branches are not supported, so an expression ends with its last byte.
enum Operation : std::uint8_t {
  kDeref = 0x06,
  kConst1u = 0x08,
  kConst1s = 0x09,
  kConst2u = 0x0a,
  kConst2s = 0x0b,
  kConst4u = 0x0c,
  kConst4s = 0x0d,
  kConst8u = 0x0e,
  kConst8s = 0x0f,
  kConstu = 0x10,
  kConsts = 0x11,
  kDup = 0x12,
  kDrop = 0x13,
  kOver = 0x14,
  kSwap = 0x16,
  kAnd = 0x1a,
  kMinus = 0x1c,
  kMultiply = 0x1e,
  kOr = 0x21,
  kPlus = 0x22,
  kPlusConstant = 0x23,
  kShiftLeft = 0x24,
  kShiftRight = 0x25,
  kEqual = 0x29,
  kGreaterOrEqual = 0x2a,
  kGreater = 0x2b,
  kLessOrEqual = 0x2c,
  kLess = 0x2d,
  kNotEqual = 0x2e,
  kLiteral0 = 0x30,
  kBaseRegister0 = 0x70,
  kBaseRegisterX = 0x92,
  kNop = 0x96,
};
/// Literals and registers have 32 operations each.
constexpr std::uint8_t kNumbered = 32;

class Machine {
 public:
  Machine(const TableReader& expression, const arch::Registers& registers, ReadableStack* stack)
      : reader_(expression), registers_(registers), stack_(*stack) {}

  bool Push(std::uint64_t value) {
    if (count_ == kMaxValues) return false;
    values_[count_++] = value;
    return true;
  }

  bool Run(std::uint64_t* result) {
    while (!reader_.empty()) {
      if (!Step(reader_.Take<std::uint8_t>())) return false;
    }
    if (!reader_.ok() || count_ == 0) return false;
    *result = Top(0);
    return true;
  }

 private:
  bool Step(std::uint8_t operation) {
    if (operation >= kLiteral0 && operation < kLiteral0 + kNumbered) {
      return Push(operation - kLiteral0);
    }
    if (operation >= kBaseRegister0 && operation < kBaseRegister0 + kNumbered) {
      return PushRegister(operation - kBaseRegister0);
    }
    switch (operation) {
      case kBaseRegisterX:
        return PushRegister(reader_.TakeUnsigned());
      case kConst1u:
        return Push(reader_.Take<std::uint8_t>());
      case kConst1s:
        return PushSigned(reader_.Take<std::int8_t>());
      case kConst2u:
        return Push(reader_.Take<std::uint16_t>());
      case kConst2s:
        return PushSigned(reader_.Take<std::int16_t>());
      case kConst4u:
        return Push(reader_.Take<std::uint32_t>());
      case kConst4s:
        return PushSigned(reader_.Take<std::int32_t>());
      case kConst8u:
      case kConst8s:
        return Push(reader_.Take<std::uint64_t>());
      case kConstu:
        return Push(reader_.TakeUnsigned());
      case kConsts:
        return PushSigned(reader_.TakeSigned());
      case kNop:
        return true;
      default:
        return count_ >= 1 && (ChangeTop(operation) || (count_ >= 2 && ChangeTwo(operation)));
    }
  }

  /// Runs an operation on the top value. Returns false for any other operation.
  bool ChangeTop(std::uint8_t operation) {
    switch (operation) {
      case kDup:
        return Push(Top(0));
      case kDrop:
        --count_;
        return true;
      case kDeref:
        return stack_.Read(Top(0), &Top(0));
      case kPlusConstant:
        Top(0) += reader_.TakeUnsigned();
        return true;
      default:
        return false;
    }
  }

  /// Runs an operation on the two top values. Returns false for any other operation.
  bool ChangeTwo(std::uint8_t operation) {
    if (operation == kOver) return Push(Top(1));
    if (operation == kSwap) {
      std::swap(Top(0), Top(1));
      return true;
    }
    if (!Combine(operation, Top(1), Top(0), &Top(1))) return false;
    --count_;
    return true;
  }

  static bool Combine(std::uint8_t operation, std::uint64_t first, std::uint64_t second,
                      std::uint64_t* result) {
    const auto first_signed = static_cast<std::int64_t>(first);
    const auto second_signed = static_cast<std::int64_t>(second);
    const auto set = [result](std::uint64_t value) {
      *result = value;
      return true;
    };
    switch (operation) {
      case kAnd:
        return set(first & second);
      case kMinus:
        return set(first - second);
      case kMultiply:
        return set(first * second);
      case kOr:
        return set(first | second);
      case kPlus:
        return set(first + second);
      case kShiftLeft:
        return set(second < kWordBits ? first << second : 0);
      case kShiftRight:
        return set(second < kWordBits ? first >> second : 0);
      case kEqual:
        return set(first == second ? 1 : 0);
      case kGreaterOrEqual:
        return set(first_signed >= second_signed ? 1 : 0);
      case kGreater:
        return set(first_signed > second_signed ? 1 : 0);
      case kLessOrEqual:
        return set(first_signed <= second_signed ? 1 : 0);
      case kLess:
        return set(first_signed < second_signed ? 1 : 0);
      case kNotEqual:
        return set(first != second ? 1 : 0);
      default:
        return false;
    }
  }

  bool PushSigned(std::int64_t value) { return Push(static_cast<std::uint64_t>(value)); }

  /// Pushes the register of `column` plus the number that follows the operation.
  bool PushRegister(std::uint64_t column) {
    const auto offset = static_cast<std::uint64_t>(reader_.TakeSigned());
    std::uint64_t value = 0;
    return ReadColumn(registers_, column, &value) && Push(value + offset);
  }

  std::uint64_t& Top(std::size_t below) { return values_[count_ - 1 - below]; }

  TableReader reader_;
  const arch::Registers& registers_;
  ReadableStack& stack_;
  std::array<std::uint64_t, kMaxValues> values_{};
  std::size_t count_ = 0;
};

}  // namespace

bool ReadColumn(const arch::Registers& registers, std::uint64_t column, std::uint64_t* value) {
  const std::size_t index = arch::SavedIndex(column);
  if (index < arch::kSavedRegisters) {
    *value = registers.saved[index];
  } else if (column == arch::kReturnAddressColumn) {
    *value = registers.pc;
  } else if (registers.interrupted != nullptr && column < arch::kInterruptedColumns) {
    *value = arch::InterruptedRegister(registers.interrupted, column);
  } else {
    return false;
  }
  return true;
}

bool Evaluate(TableReader expression, const arch::Registers& registers,
              const std::uint64_t* initial, ReadableStack* stack, std::uint64_t* result) {
  Machine machine(expression, registers, stack);
  return (initial == nullptr || machine.Push(*initial)) && machine.Run(result);
}

}  // namespace platform::cfi
