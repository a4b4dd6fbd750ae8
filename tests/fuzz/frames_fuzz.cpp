// SPDX-License-Identifier: Apache-2.0
// Fuzz target: call-frame information with arbitrary contents. One thread.
//
// The information and the stack are each between pages that cannot be read, so a read elsewhere
// ends the process. The stack consists of chosen numbers. The walks start at several functions of
// the table.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "arch/unwind.h"
#include "platform/cfi/loaded_object.h"
#include "platform/cfi/register_walk.h"
#include "platform/cfi/rule_cache.h"
#include "platform/cfi/walk.h"
#include "tests/fuzz/support.h"

namespace {

using platform::cfi::LoadedObject;

struct Head {
  std::uint32_t numbers[4];
  std::uint32_t frame_header;
};
constexpr std::size_t kStackBytes = 16384;
constexpr std::size_t kMaxBytes = 1 << 20;
constexpr std::size_t kFunctions = 6;
constexpr std::size_t kMaxFrames = 64;

LoadedObject g_object;
Elf64_Phdr g_segment;

/// Memory between two pages that cannot be read.
class Guarded {
 public:
  explicit Guarded(std::size_t most) : most_(most), page_(Page()) {
    void* memory = mmap(nullptr, most + 2 * page_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    fuzz::Require(memory != MAP_FAILED, "there is memory");
    begin_ = static_cast<std::uint8_t*>(memory) + page_;
    fuzz::Require(mprotect(begin_, most, PROT_READ | PROT_WRITE) == 0, "memory can be opened");
  }
  std::uint8_t* end() const { return begin_ + most_; }
  std::size_t size() const { return most_; }

 private:
  static std::size_t Page() { return static_cast<std::size_t>(sysconf(_SC_PAGESIZE)); }
  std::size_t most_;
  std::size_t page_;
  std::uint8_t* begin_;
};

/// Fills the stack with numbers, most of which point to the stack or to functions of the table.
void FillStack(const Guarded& stack, const std::uint64_t* functions, const Head& head) {
  auto* words = reinterpret_cast<std::uint64_t*>(stack.end() - stack.size());
  std::uint32_t state = head.numbers[0] | 1;
  for (std::size_t i = 0; i < stack.size() / 8; ++i) {
    state = state * 1664525 + 1013904223;
    const std::uint32_t choice = state >> 29;
    if (choice < 4) {
      words[i] = functions[(state >> 16) % kFunctions] + 1 + choice;
    } else if (choice < 7) {
      words[i] = reinterpret_cast<std::uint64_t>(words) + (state >> 8) % (stack.size() + 64);
    } else {
      words[i] = state;
    }
  }
}

void Walk(std::uint64_t pc, std::uint64_t sp, std::uint64_t fp, const Head& head) {
  std::uint64_t pcs[kMaxFrames];
  std::uint64_t cached_pcs[kMaxFrames];
  const std::size_t most = 1 + head.numbers[3] % kMaxFrames;
  const std::size_t count = platform::cfi::WalkFrames(pc, sp, fp, pcs, most);
  fuzz::Require(count <= most, "a walk keeps to its limit");
  // Now the cache contains all rules.
  const std::size_t cached_count = platform::cfi::WalkFrames(pc, sp, fp, cached_pcs, most);
  fuzz::Require(std::equal(pcs, pcs + count, cached_pcs, cached_pcs + cached_count),
                "a walk along the cache finds the same");

  platform::cfi::RegisterWalk walk{platform::ReadableStack(sp)};
  if (!walk.EnterInterrupted(sp)) return;
  std::uint64_t last_sp = walk.sp();
  std::size_t frames = 0;
  for (; frames < kMaxFrames && walk.Step(); ++frames) {
    fuzz::Require(walk.sp() >= last_sp || walk.interrupted(), "the stack pointer never goes back");
    last_sp = walk.sp();
  }
}

}  // namespace

namespace platform::cfi {

bool FindLoadedObject(std::uint64_t pc, LoadedObject* object) {
  // There is code before and after the information.
  if (pc - g_object.begin + kMaxBytes > 3 * kMaxBytes) return false;
  *object = g_object;
  return true;
}

}  // namespace platform::cfi

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const Guarded information(kMaxBytes);
  static const Guarded stack(kStackBytes);
  Head head{};
  if (size < sizeof head || size - sizeof head > information.size()) return 0;
  std::memcpy(&head, data, sizeof head);
  size -= sizeof head;
  auto* begin = information.end() - size;
  std::memcpy(begin, data + sizeof head, size);

  const auto base = reinterpret_cast<std::uint64_t>(begin);
  g_segment.p_type = PT_LOAD;
  g_segment.p_flags = PF_R;
  g_segment.p_filesz = g_segment.p_memsz = size;
  g_object = {base, base + size, base, &g_segment, 1, base + head.frame_header % (size + 1)};

  std::uint64_t functions[kFunctions];
  for (std::size_t i = 0; i < kFunctions; ++i) {
    // An entry of the sorted table, which starts 12 bytes after the start of the header.
    const std::size_t at = head.frame_header + 12 + 8 * (head.numbers[i % 4] % 64 + i);
    std::int32_t offset = 0;
    if (at + sizeof offset <= size) std::memcpy(&offset, begin + at, sizeof offset);
    functions[i] = g_object.frame_header + static_cast<std::uint64_t>(std::int64_t{offset}) +
                   head.numbers[(i + 1) % 4] % 32;
  }
  FillStack(stack, functions, head);
  const auto sp = reinterpret_cast<std::uint64_t>(stack.end() - stack.size());
  for (const std::uint64_t function : functions) {
    platform::cfi::RuleCache::EndGeneration();
    Walk(function + 1, sp + std::uint64_t{head.numbers[2] % 512} * 8,
         sp + head.numbers[1] % (2 * kStackBytes), head);
  }
  return 0;
}
