// The bar: "symbols  [########            ]  40 %".
#include "tools/base/progress.h"

#include <unistd.h>

#include <iostream>
#include <utility>

namespace memleak {
namespace {

constexpr std::chrono::milliseconds kPatience(1000);
constexpr std::chrono::milliseconds kInterval(100);
constexpr std::size_t kBarColumns = 40;

}  // namespace

ProgressBar::ProgressBar(std::string label, bool enabled)
    : label_(std::move(label)),
      enabled_(enabled && isatty(STDERR_FILENO) == 1),
      next_(std::chrono::steady_clock::now() + kPatience) {}

ProgressBar::~ProgressBar() {
  if (drawn_) std::cerr << "\r\033[K" << std::flush;
}

void ProgressBar::Update(std::size_t done, std::size_t all) {
  if (!enabled_ || all == 0) return;
  const auto now = std::chrono::steady_clock::now();
  if (now < next_) return;
  next_ = now + kInterval;
  drawn_ = true;
  const std::size_t filled = kBarColumns * done / all;
  std::cerr << "\r\033[K" << label_ << "  [" << std::string(filled, '#')
            << std::string(kBarColumns - filled, ' ') << "]  " << 100 * done / all << " %"
            << std::flush;
}

}  // namespace memleak
