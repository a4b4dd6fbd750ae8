// SPDX-License-Identifier: Apache-2.0
// Recognizes functions that only pass memory of the allocator on to their callers. Single-threaded.
#pragma once

#include <optional>
#include <string>

#include "tools/report/expression.h"

namespace memleak {

class Wrappers {
 public:
  /// `skip` is an expression for more of them; empty for none. Throws UserError if it is invalid.
  explicit Wrappers(const std::string& skip);

  /// Whether `function`, a demangled name, is one.
  bool Contains(const std::string& function) const;

 private:
  Expression known_;
  std::optional<Expression> more_;
};

}  // namespace memleak
