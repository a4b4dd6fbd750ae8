// SPDX-License-Identifier: Apache-2.0
// Pcs that the map index rejects. tests/fuzz/maps_fuzz.cpp tests the parser and the lookups against
// a model.
#include "backtrace/MapData.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/temporary_directory.h"
#include "tracker/control/MemTrackControl.h"

namespace {

/// The name and the relative pc that the index returns for `pc`.
std::string Place(std::uintptr_t pc, MapData& maps) {
  std::uintptr_t rel_pc = 0;
  const MapEntry* entry = maps.Find(pc, &rel_pc);
  return entry == nullptr ? "none" : entry->name + "+" + std::to_string(rel_pc);
}

TEST(MapData, RejectsPcsOfTheWrongWidth) {
  // Entries are freed only while a tracker records.
  MemTrackControl::CreateInstance()->ConfigHookStatus(false, true);
  const TemporaryDirectory directory;
  const std::string path =
      directory.Write("maps",
                      "00001000-20000000 r-xp 00000000 00:00 0 /low\n"
                      "f000000000-20000000000 r-xp 00000000 00:00 0 /high\n"
                      "7ffff0000000-7ffff0002000 r-xp 00000000 00:00 0 /linux\n");
  MapData maps(path, platform::kAndroidPcWidth);
  EXPECT_EQ(Place(0x0fffffff, maps), "none");
  EXPECT_EQ(Place(0x10000000, maps), "/low+" + std::to_string(0x10000000 - 0x1000));
  EXPECT_EQ(Place(0xffffffffff, maps), "/high+" + std::to_string(0xfffffffff));
  EXPECT_EQ(Place(0x10000000000, maps), "none");
  MapData wide(path, platform::kLinuxPcWidth);
  EXPECT_EQ(Place(0x7ffff0001000, wide), "/linux+4096");
  EXPECT_EQ(Place(0x401000, wide), "/low+" + std::to_string(0x400000));  // not position-independent
}

}  // namespace
