// SPDX-License-Identifier: Apache-2.0
// The bar looks like this: "symbols  [########            ]  40 %".
#include "tools/base/progress.h"

#include <unistd.h>

#include <iostream>
#include <utility>

namespace memleak {

StatusLine::StatusLine(bool enabled) : enabled_(enabled && isatty(STDERR_FILENO) == 1) {}

StatusLine::~StatusLine() {
  Show("");
}

void StatusLine::Show(const std::string& text) {
  if (!enabled_ || text == shown_) return;
  shown_ = text;
  std::cerr << "\r\033[K" << text << std::flush;
}

ProgressBar::ProgressBar(std::string label, bool enabled)
    : label_(std::move(label)),
      line_(enabled),
      next_(std::chrono::steady_clock::now() + std::chrono::seconds(1)) {}

void ProgressBar::Update(std::size_t done, std::size_t all) {
  constexpr std::chrono::milliseconds kInterval(100);
  constexpr std::size_t kBarColumns = 40;
  if (!line_.IsEnabled() || all == 0) return;
  const auto now = std::chrono::steady_clock::now();
  if (now < next_) return;
  next_ = now + kInterval;
  const std::size_t filled = kBarColumns * done / all;
  line_.Show(label_ + "  [" + std::string(filled, '#') + std::string(kBarColumns - filled, ' ') +
             "]  " + std::to_string(100 * done / all) + " %");
}

}  // namespace memleak
