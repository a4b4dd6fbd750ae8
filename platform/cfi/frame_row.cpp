// SPDX-License-Identifier: Apache-2.0
// Runs call-frame instructions (DWARF 5, section 6.4.2, and GNU's). Any thread, any context.
#include "platform/cfi/frame_row.h"

namespace platform::cfi {
namespace {

/// Maximum nesting of DW_CFA_remember_state. Compilers do not nest it.
constexpr std::size_t kRememberedRows = 2;

/// The high two bits of an instruction that has an operand in its low six bits.
enum : std::uint8_t { kAdvance = 0x40, kOffset = 0x80, kRestore = 0xc0 };

enum Instruction : std::uint8_t {
  kCfaNop = 0x00,
  kSetLocation = 0x01,
  kAdvance1 = 0x02,
  kAdvance2 = 0x03,
  kAdvance4 = 0x04,
  kOffsetExtended = 0x05,
  kRestoreExtended = 0x06,
  kUndefined = 0x07,
  kSameValue = 0x08,
  kRegister = 0x09,
  kRememberState = 0x0a,
  kRestoreState = 0x0b,
  kDefCfa = 0x0c,
  kDefCfaRegister = 0x0d,
  kDefCfaOffset = 0x0e,
  kDefCfaExpression = 0x0f,
  kExpression = 0x10,
  kOffsetExtendedSigned = 0x11,
  kDefCfaSigned = 0x12,
  kDefCfaOffsetSigned = 0x13,
  kValOffset = 0x14,
  kValOffsetSigned = 0x15,
  kValExpression = 0x16,
  kNegateReturnAddressState = 0x2d,  // AArch64: toggles whether the return address is signed
  kArgumentBytes = 0x2e,             // GNU; only exceptions use it
  kNegativeOffsetExtended = 0x2f,    // GNU
};

class Run {
 public:
  Run(const FrameEntry& entry, std::uint64_t pc, const FollowedColumns& columns, FrameRow* row)
      : entry_(entry), pc_(pc), columns_(columns), row_(*row) {}

  bool All() {
    location_ = entry_.begin;
    row_ = FrameRow();
    if (!Program(entry_.shared_program)) return false;
    initial_ = row_.rules;
    return Program(entry_.program);
  }

 private:
  /// Runs `program` to its end or to the first row after the pc.
  bool Program(TableReader program) {
    while (!program.empty() && location_ <= pc_) {
      if (!Step(&program)) return false;
    }
    return program.ok();
  }

  bool Step(TableReader* program) {
    const auto instruction = program->Take<std::uint8_t>();
    const std::uint8_t operand = instruction & 0x3f;
    switch (instruction & 0xc0) {
      case kAdvance:
        return Advance(operand);
      case kOffset:
        return SetValue(operand, Source::kSavedAtOffset, Factored(program->TakeUnsigned()));
      case kRestore:
        return Restore(operand);
      default:
        return Extended(instruction, program);
    }
  }

  bool Extended(std::uint8_t instruction, TableReader* program) {
    switch (instruction) {
      case kCfaNop:
      case kNegateReturnAddressState:
        return true;
      case kArgumentBytes:
        program->TakeUnsigned();
        return true;
      case kSetLocation:
        location_ = program->TakePointer(entry_.address_encoding, 0);
        return true;
      case kAdvance1:
        return Advance(program->Take<std::uint8_t>());
      case kAdvance2:
        return Advance(program->Take<std::uint16_t>());
      case kAdvance4:
        return Advance(program->Take<std::uint32_t>());
      case kRememberState:
        if (remembered_count_ == kRememberedRows) return false;
        remembered_[remembered_count_++] = row_;
        return true;
      case kRestoreState:
        if (remembered_count_ == 0) return false;
        row_ = remembered_[--remembered_count_];
        return true;
      case kDefCfa:
      case kDefCfaSigned:
      case kDefCfaRegister:
      case kDefCfaOffset:
      case kDefCfaOffsetSigned:
      case kDefCfaExpression:
        return DefineCfa(instruction, program);
      default:
        return DefineRegister(instruction, program);
    }
  }

  bool DefineCfa(std::uint8_t instruction, TableReader* program) {
    if (instruction == kDefCfaExpression) return CfaRule::Pack(program->TakeBlock(), &row_.cfa);
    std::uint64_t column = row_.cfa.column();
    auto offset = static_cast<std::uint64_t>(row_.cfa.offset());
    if (instruction == kDefCfa || instruction == kDefCfaSigned || instruction == kDefCfaRegister) {
      column = program->TakeUnsigned();
    }
    if (instruction == kDefCfa || instruction == kDefCfaOffset) {
      offset = program->TakeUnsigned();
    } else if (instruction != kDefCfaRegister) {
      offset = SignedFactored(program->TakeSigned());
    }
    row_.cfa = CfaRule(column, offset);
    return true;
  }

  bool DefineRegister(std::uint8_t instruction, TableReader* program) {
    const std::uint64_t column = program->TakeUnsigned();
    switch (instruction) {
      case kOffsetExtended:
        return SetValue(column, Source::kSavedAtOffset, Factored(program->TakeUnsigned()));
      case kOffsetExtendedSigned:
        return SetValue(column, Source::kSavedAtOffset, SignedFactored(program->TakeSigned()));
      case kNegativeOffsetExtended:
        return SetValue(column, Source::kSavedAtOffset, Factored(-program->TakeUnsigned()));
      case kValOffset:
        return SetValue(column, Source::kIsOffset, Factored(program->TakeUnsigned()));
      case kValOffsetSigned:
        return SetValue(column, Source::kIsOffset, SignedFactored(program->TakeSigned()));
      case kUndefined:
        return SetValue(column, Source::kUndefined, 0);
      case kSameValue:
        return SetValue(column, Source::kSame, 0);
      case kRegister:
        return SetValue(column, Source::kRegister, program->TakeUnsigned());
      case kExpression:
        return SetExpression(column, Source::kSavedAtExpression, program->TakeBlock());
      case kValExpression:
        return SetExpression(column, Source::kIsExpression, program->TakeBlock());
      case kRestoreExtended:
        return Restore(column);
      default:
        return false;
    }
  }

  bool Advance(std::uint64_t units) {
    location_ += units * entry_.code_alignment;
    return true;
  }

  /// Unsigned, because damaged tables may contain any number and signed overflow is undefined.
  std::uint64_t Factored(std::uint64_t units) const {
    return units * static_cast<std::uint64_t>(entry_.data_alignment);
  }
  std::uint64_t SignedFactored(std::int64_t units) const {
    return Factored(static_cast<std::uint64_t>(units));
  }

  bool SetValue(std::uint64_t column, Source source, std::uint64_t value) {
    return Set(column, {source, value});
  }
  bool SetExpression(std::uint64_t column, Source source, const TableReader& block) {
    RegisterRule rule;
    return RegisterRule::Pack(source, block, &rule) && Set(column, rule);
  }

  bool Set(std::uint64_t column, const RegisterRule& rule) {
    for (std::size_t i = 0; i < kFollowedColumns; ++i) {
      if (columns_[i] == column) row_.rules[i] = rule;
    }
    return true;
  }

  bool Restore(std::uint64_t column) {
    for (std::size_t i = 0; i < kFollowedColumns; ++i) {
      if (columns_[i] == column) row_.rules[i] = initial_[i];
    }
    return true;
  }

  const FrameEntry& entry_;
  const std::uint64_t pc_;
  const FollowedColumns& columns_;
  FrameRow& row_;
  std::uint64_t location_ = 0;
  std::array<RegisterRule, kFollowedColumns> initial_;
  std::array<FrameRow, kRememberedRows> remembered_;
  std::size_t remembered_count_ = 0;
};

}  // namespace

bool RunToRow(const FrameEntry& entry, std::uint64_t pc, const FollowedColumns& columns,
              FrameRow* row) {
  return Run(entry, pc, columns, row).All();
}

}  // namespace platform::cfi
