// SPDX-License-Identifier: Apache-2.0
// The leak-info export: groups of live blocks, largest first.
//
// Runs on the dump thread and in the C library's leak-info entry. Record operations of all other
// threads wait until it ends.
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>

#include "async_safe/log.h"
#include "backtrace/Backtrace.h"
#include "protocol/protocol.h"
#include "records/PointerData.h"
#include "records/PointerSet.h"
#include "records/grouping.h"
#include "records/profile.h"
#include "sys/system_properties.h"
#include "tracker/control/MemTrackControl.h"

namespace {

/// Size of a leak-info element without its frames, as the platform's tools expect it.
constexpr std::size_t kInfoHeaderBytes = 272;

/// Copies group `i` into `record`, which holds the previous group.
void FillRecord(Grouping& grouping, std::size_t i, const ListInfoType& group,
                RecordStruct* record) {
  record->size = group.size;
  record->num = group.num;
  record->frames.clear();
  record->times.clear();
  if (group.frame_info == nullptr) {
    async_safe_format_log(
        ANDROID_LOG_ERROR, protocol::kLogTag,
        "GetInfo:should not be here, frameInfo NULL, pointer = %lx, allocations = %lu, memsize = "
        "%lu, isZygoteChild = %d",
        static_cast<unsigned long>(group.pointer), static_cast<unsigned long>(group.num),
        static_cast<unsigned long>(group.size), static_cast<int>(group.zygote_child));
    return;  // Intentional: total and frame_count stay those of the previous group.
  }
  record->total = group.num * group.size;
  record->frame_count = group.frame_info->num_frames;
  record->frames.assign(group.frame_info->pcs(),
                        group.frame_info->pcs() + group.frame_info->num_frames);
  grouping.CopyTimes(i, &record->times);
}

}  // namespace

void PointerData::GetUniqueList(std::vector<ListInfoType>* list, bool /*only_with_backtrace*/) {
  // All sets are locked at once: none may change while it is compared with another.
  const InsideStore inside;
  const FrameInfoListWithLock locks(inside.before() != nullptr);
  Grouping(list).AddAllSets();
}

std::uint32_t PointerData::GetMaxBacktraceNum() {
  char value[PROP_VALUE_MAX] = {};
  if (__system_property_get(protocol::kDepthProperty, value) > 0) {
    const char* end = value;
    while (*end >= '0' && *end <= '9') ++end;
    if (*end == '\0') {
      errno = 0;
      const unsigned long long number = std::strtoull(value, nullptr, 10);
      // A value that does not fit an int is ignored, like a value that is not a number.
      if (errno == 0 && number <= INT_MAX) SetBacktraceSize(static_cast<std::uint32_t>(number));
    }
  }
  return BacktraceSize();
}

void PointerData::GetInfo(std::uint8_t** /*info*/, std::size_t* overall_size,
                          std::size_t* info_size, std::size_t* total_memory,
                          std::size_t* backtrace_size, std::vector<RecordStruct>* list,
                          profile::Snapshot* snapshot) {
  // Intentional: removes the mark, even if the thread was inside the store.
  if (record_key.Get() == ThreadMark::kInside) record_key.Set(nullptr);
  const InsideStore inside;  // the store must not record the vectors built below
  FrameInfoListWithLock locked(inside.before() == kHoldsStore);
  if (snapshot != nullptr) snapshot->Collect();
  std::vector<ListInfoType>& groups = *locked.list();
  Grouping grouping(&groups);
  grouping.AddAllSets();
  if (groups.empty() || list == nullptr || groups.size() > kMaxGroups) {
    async_safe_format_log(ANDROID_LOG_ERROR, protocol::kLogTag,
                          "list size err or listout null %zd, ignore",
                          static_cast<ssize_t>(groups.size()));
  } else {
    grouping.CollectTimes();
    *backtrace_size = BacktraceSize();
    *info_size = *backtrace_size * sizeof(std::uint64_t) + kInfoHeaderBytes;
    *overall_size = *info_size * groups.size();
    *total_memory = 0;
    list->reserve(list->size() + groups.size());
    RecordStruct record;
    for (std::size_t i = 0; i < groups.size(); ++i) {
      *total_memory += groups[i].num * groups[i].size;
      FillRecord(grouping, i, groups[i], &record);
      list->push_back(record);
    }
    SortListByTotalAllocation(list);
  }
}

void PointerData::SortListByTotalAllocation(std::vector<RecordStruct>* list) {
  std::sort(list->begin(), list->end(), [](const RecordStruct& a, const RecordStruct& b) {
    return a.total != b.total ? a.total > b.total : a.size > b.size;
  });
}
