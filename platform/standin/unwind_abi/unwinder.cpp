// The platform's unwinder interface on top of the C++ runtime's unwinder (Itanium C++ ABI,
// "Exception Handling", level I), which every toolchain has.
//
// Called on the allocation path for pcs alone and elsewhere for whole frames, on any thread. The
// unwinder finds its tables through dl_iterate_phdr: it may wait for the dynamic linker's lock,
// which may be taken again by the thread that holds it.
#include <unwind.h>
#include <unwindstack/Unwinder.h>

#include "arch/frame.h"
#include "platform/standin/unwind_gate.h"
#include "platform/standin/unwinder_parts.h"

namespace platform {
namespace {

_Unwind_Reason_Code CountNothing(_Unwind_Context* /*context*/, void* /*data*/) {
  return _URC_NO_REASON;
}

}  // namespace

void PrepareUnwinder() {
  _Unwind_Backtrace(CountNothing, nullptr);
}

}  // namespace platform

namespace unwindstack {

/// Takes the frames of one unwind as the unwinder calls for each of them.
class Unwinder::Walk {
 public:
  Walk(Unwinder& unwinder, const std::vector<std::string>* names_to_skip,
       const std::vector<std::string>* map_suffixes_to_ignore)
      : unwinder_(unwinder),
        skip_(unwinder.maps_, names_to_skip),
        map_suffixes_to_ignore_(map_suffixes_to_ignore) {}

  void Run() {
    _Unwind_Backtrace(Take, this);
    // A stack that ends with the function that filled the registers.
    if (!started_) AddPending();
  }

 private:
  static _Unwind_Reason_Code Take(_Unwind_Context* context, void* self) {
    // Anything but this answer ends the walk. Without memory the frames that there are must do: an
    // exception may not pass through the unwinder.
    try {
      return static_cast<Walk*>(self)->TakeFrame(context) ? _URC_NO_REASON : _URC_END_OF_STACK;
    } catch (...) {
      return _URC_END_OF_STACK;
    }
  }

  /// False when no more frames are wanted.
  bool TakeFrame(_Unwind_Context* context) {
    int interrupted = 0;  // by a signal: then the pc is not that of a call
    const std::uint64_t pc = arch::StripReturnAddress(
        static_cast<std::uint64_t>(_Unwind_GetIPInfo(context, &interrupted)));
    const auto sp = static_cast<std::uint64_t>(_Unwind_GetCFA(context));
    if (pc == 0) return false;
    if (!started_) {
      // The frames up to the one that filled the registers lie below its frame record, or around
      // it; its callers lie above. What comes last before those is the first that counts.
      if (sp <= reinterpret_cast<std::uint64_t>(unwinder_.regs_->frame)) {
        pending_pc_ = pc;
        pending_sp_ = sp;
        return true;
      }
      if (!AddPending()) return false;
    }
    return Add(interrupted != 0 ? pc : pc - arch::kCallSiteAdjustment, sp);
  }

  bool AddPending() {
    started_ = true;
    return pending_pc_ == 0 || Add(pending_pc_, pending_sp_);
  }

  bool Add(std::uint64_t pc, std::uint64_t sp) {
    if (skip_.Drops(pc)) return true;
    if (!unwinder_.AddFrame(pc, sp, map_suffixes_to_ignore_)) return false;
    if (unwinder_.resolve_names_) NameFromDynamicSymbols(unwinder_.frames_.back());
    return unwinder_.frames_.size() < unwinder_.max_frames_;
  }

  Unwinder& unwinder_;
  SkipTest skip_;
  const std::vector<std::string>* const map_suffixes_to_ignore_;
  std::uint64_t pending_pc_ = 0;
  std::uint64_t pending_sp_ = 0;
  bool started_ = false;
};

void Unwinder::Unwind(const std::vector<std::string>* initial_map_names_to_skip,
                      const std::vector<std::string>* map_suffixes_to_ignore) {
  frames_.clear();
  if (max_frames_ == 0) return;
  const platform::UnwindPass pass;
  Walk(*this, initial_map_names_to_skip, map_suffixes_to_ignore).Run();
}

}  // namespace unwindstack
