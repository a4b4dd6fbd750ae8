// SPDX-License-Identifier: Apache-2.0
// Errors that users see. RunProgram catches them, prints one line and exits with 2.
#pragma once

#include <stdexcept>
#include <string>

namespace memleak {

/// Exit codes of the program.
inline constexpr int kExitOk = 0;
inline constexpr int kExitNegative = 1;
inline constexpr int kExitUserError = 2;

/// An error with its remedy. what() returns "WHAT; REMEDY".
class UserError : public std::runtime_error {
 public:
  /// `what` describes the error and its place, `remedy` what to do; both without a final full stop.
  UserError(const std::string& what, const std::string& remedy)
      : std::runtime_error(what + "; " + remedy) {}
  /// For errors whose text contains the remedy.
  explicit UserError(const std::string& what) : std::runtime_error(what) {}
};

}  // namespace memleak
