// The platform's unwinder interface on top of libunwind.
//
// Called on the allocation path for pcs alone (libunwind's cached trace), and elsewhere for whole
// frames (its cursor). Any thread.
#include <async_safe/log.h>
#include <unwindstack/Unwinder.h>

#include <algorithm>

#include "arch/frame.h"
#include "platform/standin/libunwind/unwind_descriptors.h"
#include "platform/standin/unwind_gate.h"
#include "platform/standin/unwinder_parts.h"

namespace platform {

void PrepareUnwinder() {
  if (!KeepUnwinderOffDescriptors()) {
    async_safe_format_log(ANDROID_LOG_WARN, "MemLeak.Native",
                          "libunwind keeps its pipe, its imports were not found: set "
                          "vastel.memleak.backtacetype=0 for programs that close all descriptors");
  }
  // The first unwind of all makes libunwind set itself up.
  unw_context_t context;
  unw_cursor_t cursor;
  unw_getcontext(&context);
  if (unw_init_local(&cursor, &context) == 0) unw_step(&cursor);
}

}  // namespace platform

namespace unwindstack {
namespace {

/// The deepest stack that is taken in one go; the buffer is on the caller's stack, which may be
/// small.
constexpr std::size_t kTraceFrames = 256;
/// Frames asked for beyond the limit: those of this file, and those that the caller wants skipped.
constexpr std::size_t kTraceSlack = 12;
/// Among these must be the frame that filled the registers: it comes behind this file's two.
constexpr std::size_t kOwnFrames = 4;

#if defined(__SANITIZE_THREAD__)
// The trace frees its per-thread cache in the last round of a thread's exit, under a mutex, when
// ThreadSanitizer has let go of the thread already: its own lock function crashes then.
constexpr bool kTraceUsable = false;
#else
constexpr bool kTraceUsable = true;
#endif

constexpr std::size_t kNameBytes = 1024;

/// The function that `cursor` stands in. The dynamic symbols are at hand; only for functions that
/// are not among them is the file's full table read, which takes a hundred times as long.
void NameFunction(unw_cursor_t& cursor, FrameData& frame) {
  if (NameFromDynamicSymbols(frame)) return;
  char name[kNameBytes];
  unw_word_t offset = 0;
  if (unw_get_proc_name(&cursor, name, sizeof(name), &offset) != 0) return;
  frame.function_name = name;
  frame.function_offset = offset;
}

}  // namespace

/// Fills the frames of `unwinder`, one way or the other.
class Unwinder::Walk {
 public:
  Walk(Unwinder& unwinder, const std::vector<std::string>* names_to_skip,
       const std::vector<std::string>* map_suffixes_to_ignore)
      : unwinder_(unwinder),
        skip_(unwinder.maps_, names_to_skip),
        map_suffixes_to_ignore_(map_suffixes_to_ignore) {}

  bool Direct(std::uint64_t return_address);
  void ByCursor();

 private:
  Unwinder& unwinder_;
  SkipTest skip_;
  const std::vector<std::string>* const map_suffixes_to_ignore_;
};

void Unwinder::Unwind(const std::vector<std::string>* initial_map_names_to_skip,
                      const std::vector<std::string>* map_suffixes_to_ignore) {
  frames_.clear();
  if (max_frames_ == 0) return;
  const platform::UnwindPass pass;
  // The frame pointer that this function saved is the caller's: when it is also the one in the
  // registers, the stack below it is this thread's present one and can be walked from here.
  const void* caller_frame = *static_cast<void**>(__builtin_frame_address(0));
  const bool pcs_only = !resolve_names_ && map_suffixes_to_ignore == nullptr;
  if (kTraceUsable && pcs_only && regs_->frame == caller_frame) {
    const auto return_address = reinterpret_cast<std::uint64_t>(__builtin_return_address(0));
    Walk walk(*this, initial_map_names_to_skip, nullptr);
    if (walk.Direct(arch::StripReturnAddress(return_address))) return;
    frames_.clear();
  }
  Walk(*this, initial_map_names_to_skip, map_suffixes_to_ignore).ByCursor();
}

/// Takes the pcs from libunwind's cached trace, starting at the frame whose pc is `return_address`.
/// False when the trace does not lead there or the stack is deeper than one trace goes.
bool Unwinder::Walk::Direct(std::uint64_t return_address) {
  const std::size_t limit = unwinder_.max_frames_;
  void* trace[kTraceFrames];
  const std::size_t wanted =
      limit < kTraceFrames - kTraceSlack ? limit + kTraceSlack : kTraceFrames;
  const int found = unw_backtrace(trace, static_cast<int>(wanted));
  const std::size_t count = found > 0 ? static_cast<std::size_t>(found) : 0;

  const auto pc_at = [&trace](std::size_t i) {
    return arch::StripReturnAddress(reinterpret_cast<std::uint64_t>(trace[i]));
  };
  std::size_t first = 0;
  while (first < count && first < kOwnFrames && pc_at(first) != return_address) ++first;
  if (first == count || first == kOwnFrames) return false;

  unwinder_.frames_.reserve(std::min(limit, count - first));
  for (std::size_t i = first; i < count; ++i) {
    // Also for the frame below a signal handler, which a trace of bare pcs does not set apart.
    const std::uint64_t pc = i == first ? pc_at(i) : pc_at(i) - arch::kCallSiteAdjustment;
    if (trace[i] == nullptr) break;
    if (skip_.Drops(pc)) continue;
    unwinder_.AddFrame(pc, 0, nullptr);
    if (unwinder_.frames_.size() == limit) return true;
  }
  // A trace that filled the buffer may have left frames out.
  return count < wanted;
}

/// Walks frame by frame from the registers.
void Unwinder::Walk::ByCursor() {
  // libunwind may change the context it works on.
  unw_context_t context = unwinder_.regs_->context;
  unw_cursor_t cursor;
  if (unw_init_local(&cursor, &context) != 0) return;
  std::uint64_t adjustment = 0;
  do {
    unw_word_t pc = 0;
    unw_word_t sp = 0;
    if (unw_get_reg(&cursor, UNW_REG_IP, &pc) != 0 || pc == 0) return;
    unw_get_reg(&cursor, UNW_REG_SP, &sp);
    pc = arch::StripReturnAddress(pc) - adjustment;
    // What a signal interrupted was not calling anything.
    adjustment = unw_is_signal_frame(&cursor) > 0 ? 0 : arch::kCallSiteAdjustment;
    if (skip_.Drops(pc)) continue;
    if (!unwinder_.AddFrame(pc, sp, map_suffixes_to_ignore_)) return;
    if (unwinder_.resolve_names_) NameFunction(cursor, unwinder_.frames_.back());
  } while (unwinder_.frames_.size() < unwinder_.max_frames_ && unw_step(&cursor) > 0);
}

}  // namespace unwindstack
