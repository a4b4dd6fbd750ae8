// What the adapters of the platform's unwinder interface share. Any thread.
#include "platform/standin/unwinder_parts.h"

#include <dlfcn.h>

#include <algorithm>
#include <memory>
#include <string_view>
#include <utility>

namespace unwindstack {
namespace {

bool Contains(const std::vector<std::string>& list, std::string_view text) {
  return std::find(list.begin(), list.end(), text) != list.end();
}

/// Of a name like "/path/base.odex" the text behind the last dot.
std::string_view Suffix(std::string_view name) {
  const std::size_t dot = name.rfind('.');
  return dot == std::string_view::npos ? std::string_view() : name.substr(dot + 1);
}

}  // namespace

bool Unwinder::SkipTest::Drops(std::uint64_t pc) {
  if (done_) return false;
  if (range_ != nullptr && range_->Contains(pc)) return true;
  range_ = maps_->FindCode(pc);
  done_ = range_ == nullptr || !Contains(*names_, range_->basename);
  return !done_;
}

bool NameFromDynamicSymbols(FrameData& frame) {
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(frame.pc), &info) == 0 || info.dli_sname == nullptr) {
    return false;
  }
  frame.function_name = info.dli_sname;
  frame.function_offset = frame.pc - reinterpret_cast<std::uint64_t>(info.dli_saddr);
  return true;
}

Unwinder::Unwinder(std::size_t max_frames, LocalUpdatableMaps* maps, Regs* regs,
                   std::shared_ptr<Memory> process_memory)
    : max_frames_(max_frames),
      maps_(maps),
      regs_(static_cast<RegsLocal*>(regs)),
      process_memory_(std::move(process_memory)) {}

bool Unwinder::AddFrame(std::uint64_t pc, std::uint64_t sp,
                        const std::vector<std::string>* map_suffixes_to_ignore) {
  const bool wants_map = resolve_names_ || map_suffixes_to_ignore != nullptr;
  std::shared_ptr<MapInfo> map = wants_map ? maps_->Find(pc) : nullptr;
  if (map != nullptr && map_suffixes_to_ignore != nullptr) {
    const std::string_view suffix = Suffix(map->name().c_str());
    if (!suffix.empty() && Contains(*map_suffixes_to_ignore, suffix)) return false;
  }
  FrameData& frame = frames_.emplace_back();
  frame.num = frames_.size() - 1;
  frame.pc = pc;
  if (!resolve_names_) return true;
  frame.sp = sp;
  if (map != nullptr) {
    frame.rel_pc = pc - map->start();
    frame.map_info = std::move(map);
  }
  return true;
}

}  // namespace unwindstack
