// How far the stack that a walk is on can be read: ranges that were probed, by where they are.
#include "platform/cfi/stack_range.h"

#include <atomic>

#include "platform/cfi/probe.h"

namespace platform::cfi {
namespace {

constexpr std::uint64_t kFurther = 16 * 4096;
struct Known {
  std::atomic<std::uint64_t> begin{0};
  std::atomic<std::uint64_t> end{0};
};
Known g_known[64];

}  // namespace

bool StackRange::Reaches(std::uint64_t address, std::uint64_t bytes) {
  const std::uint64_t wanted = address + bytes;
  if (address < begin_ || wanted < address) return false;
  Known& known = g_known[(begin_ >> 20) % 64];
  const std::uint64_t begin = known.begin.load(std::memory_order_relaxed);
  const std::uint64_t end = known.end.load(std::memory_order_relaxed);
  if (begin_ >= begin && begin_ < end) end_ = end;
  if (wanted <= end_) return true;
  if (wanted - begin_ > (std::uint64_t{8} << 20)) return false;
  end_ = begin_ & ~(kPageBytes - 1);
  while (end_ < wanted + kFurther && IsReadable(end_, 1)) end_ += kPageBytes;
  known.begin.store(begin_ & ~(kPageBytes - 1), std::memory_order_relaxed);
  known.end.store(end_, std::memory_order_relaxed);
  return wanted <= end_;
}

}  // namespace platform::cfi
