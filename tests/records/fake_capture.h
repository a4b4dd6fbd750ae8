// SPDX-License-Identifier: Apache-2.0
// A scripted capture and allocator for tests of the record store. fake_capture.cpp defines the
// functions that the library has from backtrace/ and the platform.
#pragma once

#include <gtest/gtest.h>
#include <cstdint>
#include <ctime>
#include <string>
#include <utility>
#include <vector>

#include "backtrace/Backtrace.h"
#include "records/PointerData.h"
#include "records/PointerSet.h"
#include "records/set_selection.h"
#include "sys/system_properties.h"
#include "tests/records/log_capture.h"
#include "tracker/control/MemTrackControl.h"

/// The results of a thread's next captures.
struct Script {
  std::vector<std::uint64_t> pcs;
  std::vector<unwindstack::FrameData> java_frames;
  std::size_t usable_size = 0;
};
inline Script& CurrentScript() {
  static thread_local Script script;
  return script;
}
inline std::string fake_property;
/// What time() returns.
inline std::time_t fake_time = 0;

/// A store with empty tables, with recording on.
class RecordStoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(control_->DebugDisableInit());
    control_->set_zygote_child(reinterpret_cast<bool*>(&zygote_child_));
    dispatch_.malloc_usable_size = [](const void*) { return CurrentScript().usable_size; };
    control_->set_dispatch(&dispatch_);
    control_->ConfigHookStatus(true, true);
    data_.Initialize();
    LogLines().clear();
  }

  static const void* At(std::uint64_t address) { return reinterpret_cast<const void*>(address); }
  void Add(std::uint64_t address, std::size_t size, std::vector<std::uint64_t> pcs) {
    CurrentScript() = {std::move(pcs), {}, size};
    data_.Add(At(address), size);
  }
  void Remove(std::uint64_t address, std::size_t usable_size) {
    CurrentScript().usable_size = usable_size;
    data_.Remove(At(address), 0);
  }
  MemTrackControl* control_ = MemTrackControl::CreateInstance();
  MallocDispatch dispatch_{};
  alignas(4) std::uint32_t zygote_child_ = 0;
  PointerData data_{nullptr};
};
