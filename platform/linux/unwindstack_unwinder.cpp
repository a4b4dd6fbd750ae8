// The platform's unwinder interface on top of libunwind.
//
// Called on the allocation path for pcs alone (libunwind's cached trace), and elsewhere for whole
// frames (its cursor). Any thread.
#include <dlfcn.h>
#include <unwindstack/Unwinder.h>

#include <algorithm>
#include <string_view>

#include "arch/frame.h"
#include "platform/linux/unwind_gate.h"

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

/// Of a name like "/path/base.odex" the text behind the last dot.
std::string_view Suffix(std::string_view name) {
  const std::size_t dot = name.rfind('.');
  return dot == std::string_view::npos ? std::string_view() : name.substr(dot + 1);
}

/// The function that `cursor` stands in. The dynamic symbols are at hand; only for functions that
/// are not among them is the file's full table read, which takes a hundred times as long.
void NameFunction(unw_cursor_t& cursor, FrameData& frame) {
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(frame.pc), &info) != 0 && info.dli_sname != nullptr) {
    frame.function_name = info.dli_sname;
    frame.function_offset = frame.pc - reinterpret_cast<std::uint64_t>(info.dli_saddr);
    return;
  }
  char name[kNameBytes];
  unw_word_t offset = 0;
  if (unw_get_proc_name(&cursor, name, sizeof(name), &offset) != 0) return;
  frame.function_name = name;
  frame.function_offset = offset;
}

bool Contains(const std::vector<std::string>& list, std::string_view text) {
  return std::find(list.begin(), list.end(), text) != list.end();
}

}  // namespace

/// Tells which frames at the top of the stack are dropped. Neighbours mostly share a mapping, so
/// the last answer is kept.
class Unwinder::SkipTest {
 public:
  SkipTest(LocalUpdatableMaps* maps, const std::vector<std::string>* names)
      : maps_(maps), names_(names), done_(names == nullptr || names->empty()) {}

  /// To be asked about each frame in order. Once one was kept, all are.
  bool Drops(std::uint64_t pc) {
    if (done_) return false;
    if (range_ != nullptr && range_->Contains(pc)) return true;
    range_ = maps_->FindCode(pc);
    done_ = range_ == nullptr || !Contains(*names_, range_->basename);
    return !done_;
  }

 private:
  LocalUpdatableMaps* const maps_;
  const std::vector<std::string>* const names_;
  const LocalUpdatableMaps::CodeRange* range_ = nullptr;  // of the last frame dropped
  bool done_;
};

Unwinder::Unwinder(std::size_t max_frames, LocalUpdatableMaps* maps, Regs* regs,
                   std::shared_ptr<Memory> process_memory)
    : max_frames_(max_frames),
      maps_(maps),
      regs_(static_cast<RegsLocal*>(regs)),
      process_memory_(std::move(process_memory)) {}

void Unwinder::Unwind(const std::vector<std::string>* initial_map_names_to_skip,
                      const std::vector<std::string>* map_suffixes_to_ignore) {
  frames_.clear();
  if (max_frames_ == 0) return;
  const platform::UnwindPass pass;
  // The frame pointer that this function saved is the caller's: when it is also the one in the
  // registers, the stack below it is this thread's present one and can be walked from here.
  const void* caller_frame = *static_cast<void**>(__builtin_frame_address(0));
  const bool pcs_only = !resolve_maps_ && !resolve_names_ && map_suffixes_to_ignore == nullptr;
  if (kTraceUsable && pcs_only && regs_->frame == caller_frame) {
    SkipTest skip(maps_, initial_map_names_to_skip);
    const auto return_address = reinterpret_cast<std::uint64_t>(__builtin_return_address(0));
    if (UnwindDirect(arch::StripReturnAddress(return_address), skip)) return;
    frames_.clear();
  }
  SkipTest skip(maps_, initial_map_names_to_skip);
  UnwindByCursor(skip, map_suffixes_to_ignore);
}

/// Takes the pcs from libunwind's cached trace, starting at the frame whose pc is `return_address`.
/// False when the trace does not lead there or the stack is deeper than one trace goes.
bool Unwinder::UnwindDirect(std::uint64_t return_address, SkipTest& skip) {
  void* trace[kTraceFrames];
  const std::size_t wanted =
      max_frames_ < kTraceFrames - kTraceSlack ? max_frames_ + kTraceSlack : kTraceFrames;
  const int found = unw_backtrace(trace, static_cast<int>(wanted));
  const std::size_t count = found > 0 ? static_cast<std::size_t>(found) : 0;

  const auto pc_at = [&trace](std::size_t i) {
    return arch::StripReturnAddress(reinterpret_cast<std::uint64_t>(trace[i]));
  };
  std::size_t first = 0;
  while (first < count && first < kOwnFrames && pc_at(first) != return_address) ++first;
  if (first == count || first == kOwnFrames) return false;

  frames_.reserve(std::min(max_frames_, count - first));
  for (std::size_t i = first; i < count; ++i) {
    // Also for the frame below a signal handler, which a trace of bare pcs does not set apart.
    const std::uint64_t pc = i == first ? pc_at(i) : pc_at(i) - arch::kCallSiteAdjustment;
    if (trace[i] == nullptr) break;
    if (skip.Drops(pc)) continue;
    AddFrame(pc);
    if (frames_.size() == max_frames_) return true;
  }
  // A trace that filled the buffer may have left frames out.
  return count < wanted;
}

/// Walks frame by frame from the registers.
void Unwinder::UnwindByCursor(SkipTest& skip,
                              const std::vector<std::string>* map_suffixes_to_ignore) {
  // libunwind may change the context it works on.
  unw_context_t context = regs_->context;
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
    if (skip.Drops(pc)) continue;

    const bool wants_map = resolve_maps_ || map_suffixes_to_ignore != nullptr;
    std::shared_ptr<MapInfo> map = wants_map ? maps_->Find(pc) : nullptr;
    if (map != nullptr && map_suffixes_to_ignore != nullptr) {
      const std::string_view suffix = Suffix(map->name().c_str());
      if (!suffix.empty() && Contains(*map_suffixes_to_ignore, suffix)) return;
    }
    FrameData& frame = AddFrame(pc);
    if (resolve_names_) NameFunction(cursor, frame);
    if (resolve_maps_) {
      frame.sp = sp;
      if (map != nullptr) {
        frame.rel_pc = pc - map->start();
        frame.map_info = std::move(map);
      }
    }
  } while (frames_.size() < max_frames_ && unw_step(&cursor) > 0);
}

FrameData& Unwinder::AddFrame(std::uint64_t pc) {
  FrameData& frame = frames_.emplace_back();
  frame.num = frames_.size() - 1;
  frame.pc = pc;
  return frame;
}

}  // namespace unwindstack
