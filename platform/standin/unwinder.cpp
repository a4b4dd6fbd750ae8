// The platform's unwinder interface on top of the C++ runtime's unwinder (Itanium C++ ABI,
// "Exception Handling", level I), which every toolchain has.
//
// Called on the allocation path of every thread. The runtime's unwinder needs most of the stack
// that a recorded allocation takes, so nothing here allocates or keeps buffers while it runs.
#include <link.h>
#include <unwind.h>
#include <unwindstack/Unwinder.h>

#include <algorithm>
#include <new>

#include "arch/frame.h"

namespace unwindstack {

bool LocalUpdatableMaps::Parse() {
  const auto add = [](dl_phdr_info* info, std::size_t /*size*/, void* maps) {
    const std::string_view path = info->dlpi_name;
    // An exception must not pass through the dynamic linker's function.
    try {
      for (std::size_t i = 0; i < info->dlpi_phnum; ++i) {
        const ElfW(Phdr)& header = info->dlpi_phdr[i];
        if (header.p_type != PT_LOAD || (header.p_flags & PF_X) == 0) continue;
        const std::uint64_t start = info->dlpi_addr + header.p_vaddr;
        static_cast<LocalUpdatableMaps*>(maps)->code_.push_back(
            {start, start + header.p_memsz, std::string(path.substr(path.rfind('/') + 1))});
      }
    } catch (const std::bad_alloc&) {
      return 1;
    }
    return 0;
  };
  return dl_iterate_phdr(add, this) == 0;
}

std::string_view LocalUpdatableMaps::LibraryAt(std::uint64_t pc) const {
  const auto found = std::find_if(code_.begin(), code_.end(), [pc](const Code& code) {
    return pc >= code.start && pc < code.end;
  });
  return found != code_.end() ? found->library : std::string_view();
}

struct Unwinder::Walk {
  Unwinder& unwinder;
  /// Frames in these are dropped; null once a frame was kept.
  const std::vector<std::string>* names_to_skip;
  /// The first frame that the runtime reports is Unwind's own.
  bool in_unwind = true;

  static _Unwind_Reason_Code Take(_Unwind_Context* context, void* self) {
    // Any other answer than this ends the walk.
    return static_cast<Walk*>(self)->TakeFrame(context) ? _URC_NO_REASON : _URC_END_OF_STACK;
  }

  /// False if no more frames are wanted.
  bool TakeFrame(_Unwind_Context* context) {
    int interrupted = 0;  // by a signal: then the pc is not behind a call
    std::uint64_t pc = arch::StripReturnAddress(
        static_cast<std::uint64_t>(_Unwind_GetIPInfo(context, &interrupted)));
    if (pc == 0) return false;
    if (in_unwind) {
      in_unwind = false;
      return true;
    }
    if (interrupted == 0) pc -= arch::kCallSiteAdjustment;
    if (names_to_skip != nullptr) {
      const auto end = names_to_skip->end();
      if (std::find(names_to_skip->begin(), end, unwinder.maps_->LibraryAt(pc)) != end) return true;
      names_to_skip = nullptr;
    }
    unwinder.frames_.emplace_back().pc = pc;
    return unwinder.frames_.size() < unwinder.max_frames_;
  }
};

void Unwinder::Unwind(const std::vector<std::string>* initial_map_names_to_skip) {
  frames_.clear();
  if (max_frames_ == 0) return;
  Walk walk{*this, initial_map_names_to_skip};
  _Unwind_Backtrace(Walk::Take, &walk);
}

}  // namespace unwindstack
