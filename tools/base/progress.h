// SPDX-License-Identifier: Apache-2.0
// Progress on the terminal. Single-threaded.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>

namespace memleak {

/// A line on the error output that is rewritten in place and removed at the end. Nothing is written
/// unless that output is a terminal.
class StatusLine {
 public:
  explicit StatusLine(bool enabled = true);
  ~StatusLine();
  StatusLine(const StatusLine&) = delete;
  StatusLine& operator=(const StatusLine&) = delete;

  bool IsEnabled() const { return enabled_; }
  /// Replaces the line by `text`, which has no line breaks.
  void Show(const std::string& text);

 private:
  bool enabled_;
  std::string shown_;
};

/// A progress bar that appears when the work takes longer than a second.
class ProgressBar {
 public:
  /// `label` names the work. With `enabled` unset nothing is ever written.
  ProgressBar(std::string label, bool enabled);

  /// Reports that `done` of `all` steps are done. Cheap enough to call at each step.
  void Update(std::size_t done, std::size_t all);

 private:
  std::string label_;
  StatusLine line_;
  std::chrono::steady_clock::time_point next_;
};

}  // namespace memleak
