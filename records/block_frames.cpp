// SPDX-License-Identifier: Apache-2.0
// The recorded backtrace of one block.
#include <algorithm>

#include "platform/bounds_checked.h"
#include "records/PointerData.h"
#include "records/record_store.h"
#include "records/set_selection.h"

std::size_t PointerData::GetFrames(const void* pointer, std::uintptr_t* frames,
                                   std::size_t max_frames) {
  const auto address = reinterpret_cast<std::uint64_t>(pointer);
  // Intentional: the size of a hooked kind's block is unknown here, so only its smallest size class
  // is searched.
  const SetChoice choice = SelectSet(address, ClassSize(pointer, 0));
  RecordPage* const page = RecordPages::Find(address);
  if (choice.set == nullptr || page == nullptr) return 0;
  const record_store::PageGuard guard(page, choice.set->pointer_mutex,
                                      record_key.Get() == kHoldsStore);
  if (page->generation() != record_store::Generation()) return 0;
  const Record* const record = page->Find(RecordKey::Of(address, choice.size_class));
  if (record == nullptr || record->backtrace == 0) return 0;
  const FrameInfoType* const backtrace = record_store::backtraces.At(record->backtrace);
  const std::size_t count = std::min<std::size_t>(backtrace->num_frames, max_frames);
  const std::size_t bytes = count * sizeof(std::uintptr_t);
  return platform::memcpy_s(frames, bytes, backtrace->pcs(), bytes) == 0 ? count : 0;
}
