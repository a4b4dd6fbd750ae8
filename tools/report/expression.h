// SPDX-License-Identifier: Apache-2.0
// A POSIX extended regular expression of the C library, whose cost is bounded for long names of
// templates. Single-threaded.
#pragma once

#include <regex.h>

#include <array>
#include <string>

#include "tools/base/user_error.h"

namespace memleak {

class Expression {
 public:
  /// Throws UserError if `text` is invalid; `option` is the option that it comes from.
  Expression(const std::string& text, const std::string& option) {
    const int error = regcomp(&compiled_, text.c_str(), REG_EXTENDED | REG_NOSUB);
    if (error == 0) return;
    std::array<char, 128> reason{};
    regerror(error, &compiled_, reason.data(), reason.size());
    throw UserError(option + " is not a regular expression: " + text + " (" + reason.data() + ")",
                    "put a backslash before literal special characters");
  }
  ~Expression() { regfree(&compiled_); }
  Expression(const Expression&) = delete;
  Expression& operator=(const Expression&) = delete;

  bool Matches(const std::string& text) const {
    return regexec(&compiled_, text.c_str(), 0, nullptr, 0) == 0;
  }

 private:
  regex_t compiled_{};
};

}  // namespace memleak
