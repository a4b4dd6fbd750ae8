// A bar on the terminal for work that turns out to take long. Called by the model; single-threaded.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>

namespace memleak {

/// Draws on the error output, when that is a terminal, from one second after its making; the line
/// is gone when the object is.
class ProgressBar {
 public:
  /// `label` says what is done; with `enabled` unset nothing is ever drawn.
  ProgressBar(std::string label, bool enabled);
  ~ProgressBar();
  ProgressBar(const ProgressBar&) = delete;
  ProgressBar& operator=(const ProgressBar&) = delete;

  /// Says that `done` of `all` steps are done; cheap enough to call at each.
  void Update(std::size_t done, std::size_t all);

 private:
  std::string label_;
  bool enabled_;
  bool drawn_ = false;
  std::chrono::steady_clock::time_point next_;
};

}  // namespace memleak
