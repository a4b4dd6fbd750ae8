// SPDX-License-Identifier: Apache-2.0
// Changes the stacks of a symbolized profile. Single-threaded.
#pragma once

#include <optional>
#include <string>

#include "tools/report/expression.h"
#include "tools/report/model.h"

namespace memleak {

/// Recognizes functions that only pass memory of the allocator on to their callers.
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

/// Removes the inner frames that are wrappers of allocators or the loader's, unless all frames are.
void FoldWrappers(const Wrappers& wrappers, Profile* profile);

/// Clears `cut` of the groups whose outermost frames start a program or a thread: their stacks have
/// exactly the maximum number of frames.
void ClearCutOfWhole(Profile* profile);

/// Merges the groups with the same frames, and sorts the groups by bytes. For profiles, whose
/// stacks may differ only in the wrappers that were removed.
void MergeStacks(Profile* profile);

}  // namespace memleak
