// SPDX-License-Identifier: Apache-2.0
// How to get from one frame to its caller, in one word.
//
// Created the first time a return address is captured, and read by every later capture.
#pragma once

#include <cstddef>
#include <cstdint>

#include "arch/unwind.h"
#include "platform/cfi/loaded_object.h"

namespace platform::cfi {

/// Layout, from the lowest bit: the rule's generation (see RuleCache; never 0), its kind, two
/// flags. A step also has the places of frame pointer and return address and the distance to the
/// canonical frame address (CFA), all signed. The distance is in bytes, so that one shift extracts
/// it. The places are in words.
class Rule {
 public:
  static constexpr unsigned kGenerationBits = 19;
  static constexpr std::uint64_t kGenerationMask = (std::uint64_t{1} << kGenerationBits) - 1;

  /// How the CFA is computed. Hot code compares kind and generation in one operation, so kStackStep
  /// must be 0.
  enum Kind : std::uint64_t {
    kStackStep = 0,  // CFA = stack pointer + distance
    kFrameStep = 1,  // CFA = frame pointer + distance
    kSavedStep = 2,  // CFA = the word at frame pointer + distance
    kOther = 3,
  };
  /// The meaning of a rule of kind kOther.
  enum class Other : std::uint64_t {
    kEnd,     // the stack ends here
    kSignal,  // the frame to which a signal handler returns
    kSlow,    // a step that does not fit into a word
  };
  static constexpr std::uint64_t kTagMask = (std::uint64_t{1} << (kGenerationBits + 2)) - 1;

  constexpr Rule() = default;
  constexpr explicit Rule(std::uint64_t word) : word_(word) {}
  constexpr Rule(Other other)  // NOLINT(google-explicit-constructor)
      : word_((kOther << kGenerationBits) | (static_cast<std::uint64_t>(other) << kDistanceShift)) {
  }

  /// A step as call-frame information describes it; all numbers in bytes.
  struct Step {
    Kind kind = kStackStep;
    std::int64_t distance = 0;
    /// Return address and frame pointer are at these distances from the CFA or, if `from_register`
    /// is set, from the register that the CFA is computed from.
    bool from_register = false;
    std::int64_t return_address = 0;
    bool saves_frame_pointer = false;
    std::int64_t frame_pointer = 0;
  };
  /// Packs `step` into `rule`. Returns false if a number does not fit.
  static bool Pack(const Step& step, Rule* rule);

  /// The step of most functions with a frame record: the frame pointer is the record's address and
  /// the CFA is its end. The rule has no generation.
  static constexpr Rule FrameRecordStep() {
    constexpr std::uint64_t kMinusOne = (std::uint64_t{1} << kPlaceBits) - 1;
    return Rule(std::uint64_t{kFrameStep} << kGenerationBits | kSavesFramePointer |
                (kMinusOne - 1) << kFramePointerShift |
                (arch::kCallPushesReturnAddress ? 0 : kMinusOne) << kReturnAddressShift |
                2 * sizeof(std::uint64_t) << kDistanceShift);
  }

  constexpr std::uint64_t word() const { return word_; }
  constexpr std::uint64_t tag() const { return word_ & kTagMask; }
  constexpr Kind kind() const { return static_cast<Kind>((word_ >> kGenerationBits) & 3); }
  constexpr Other other() const { return static_cast<Other>(word_ >> kDistanceShift); }
  constexpr bool IsOf(std::uint64_t generation) const {
    return (word_ & kGenerationMask) == generation;
  }
  constexpr Rule WithGeneration(std::uint64_t generation) const {
    return Rule((word_ & ~kGenerationMask) | generation);
  }

  // For steps only. All numbers are in bytes.
  constexpr std::uint64_t distance() const { return Field(kDistanceShift, kDistanceBits); }
  constexpr bool saves_frame_pointer() const { return (word_ & kSavesFramePointer) != 0; }
  constexpr bool from_register() const { return (word_ & kFromRegister) != 0; }
  constexpr std::uint64_t return_address() const {
    return Field(kReturnAddressShift, kPlaceBits) * sizeof(std::uint64_t);
  }
  constexpr std::uint64_t frame_pointer() const {
    return Field(kFramePointerShift, kPlaceBits) * sizeof(std::uint64_t);
  }

 private:
  static constexpr std::uint64_t kSavesFramePointer = std::uint64_t{1} << (kGenerationBits + 2);
  static constexpr std::uint64_t kFromRegister = kSavesFramePointer << 1;
  static constexpr unsigned kPlaceBits = 9;
  static constexpr unsigned kFramePointerShift = kGenerationBits + 4;
  static constexpr unsigned kReturnAddressShift = kFramePointerShift + kPlaceBits;
  static constexpr unsigned kDistanceShift = kReturnAddressShift + kPlaceBits;
  static constexpr unsigned kDistanceBits = 64 - kDistanceShift;  // 23: 4 MiB

  /// Returns the signed number of `bits` bits at `shift`.
  constexpr std::uint64_t Field(unsigned shift, unsigned bits) const {
    return static_cast<std::uint64_t>(static_cast<std::int64_t>(word_ << (64 - bits - shift)) >>
                                      (64 - bits));
  }

  std::uint64_t word_ = 0;
};

/// Returns the rule for the function that contains the call before `return_address`. `object` is
/// the object that contains this call; null if there is none.
Rule MakeRule(const LoadedObject* object, std::uint64_t return_address);

/// Whether `pc` points to the code that a signal handler returns to. `object` contains `pc`; null
/// if there is none. Reads only readable memory.
bool IsSignalReturn(const LoadedObject* object, std::uint64_t pc);

}  // namespace platform::cfi
