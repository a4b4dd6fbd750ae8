// The one kind of error that users see: what is wrong, where, and what to do about it.
//
// Thrown by every part of the controller, caught by main, which prints one line and exits with 2.
#pragma once

#include <stdexcept>
#include <string>

namespace memleak {

/// Exit codes of the program, as the help texts list them.
inline constexpr int kExitOk = 0;
inline constexpr int kExitNegative = 1;
inline constexpr int kExitUserError = 2;

/// An error with its remedy. `what()` is the whole line: "WHAT; REMEDY".
class UserError : public std::runtime_error {
 public:
  /// `what` says what is wrong and where, `remedy` what to do; both without a final full stop.
  UserError(const std::string& what, const std::string& remedy)
      : std::runtime_error(what + "; " + remedy) {}
  /// For errors whose text says what is allowed.
  explicit UserError(const std::string& what) : std::runtime_error(what) {}
};

}  // namespace memleak
