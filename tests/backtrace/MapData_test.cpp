// SPDX-License-Identifier: Apache-2.0
// Pcs that the map index rejects, and libraries that it marks. tests/fuzz/maps_fuzz.cpp tests the
// parser and the lookups against a model.
#include "backtrace/MapData.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/temporary_directory.h"
#include "tracker/control/MemTrackControl.h"

class MapDataTest : public testing::Test {
 protected:
  // Entries are freed only while a tracker records.
  static void SetUpTestSuite() { MemTrackControl::CreateInstance()->ConfigHookStatus(false, true); }

  static std::size_t Entries(const MapData& maps) { return maps.entries_.size(); }
  static std::size_t JavaLibs(const MapData& maps) { return maps.java_native_libs_.size(); }

  const TemporaryDirectory directory_;
};

namespace {

/// The name and the relative pc that the index returns for `pc`.
std::string Place(std::uintptr_t pc, MapData& maps) {
  std::uintptr_t rel_pc = 0;
  const MapEntry* entry = maps.Find(pc, &rel_pc);
  return entry == nullptr ? "none" : entry->name + "+" + std::to_string(rel_pc);
}

TEST_F(MapDataTest, RejectsPcsOfTheWrongWidth) {
  const std::string path =
      directory_.Write("maps",
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

TEST_F(MapDataTest, MarksTheCodeOfTheJavaNativeLibraries) {
  const std::string hwui = "r-xp 00000000 00:00 0 /system/lib64/libhwui.so\n";
  const std::string path = directory_.Write(
      "maps", "10000000-10001000 " + hwui + "10001000-10002000 " + hwui +
                  "10002000-10003000 r--p 0 00:00 0 /apex/com.android.i18n/lib64/libicuuc.so\n"
                  "10003000-10004000 r-xp 0 00:00 0 /apex/com.android.i18n/lib64/libicuuc.so.1\n"
                  "10004000-10005000 r-xp 0 00:00 0 \n"
                  "10005000-10006000 r-xp 0 00:00 0 /apex/com.android.i18n/lib64/libicu_jni.so\n"
                  "10006000-10007000 r-xp 0 00:00 0 /after\n");
  MapData maps(path, platform::kAndroidPcWidth);
  EXPECT_TRUE(maps.ReadMaps(true));
  EXPECT_EQ(JavaLibs(maps), 3U);
  EXPECT_EQ(Entries(maps), 6U);  // "/after" comes after the end of reading
  EXPECT_TRUE(maps.ReadMaps(false));
  EXPECT_EQ(JavaLibs(maps), 3U);
  EXPECT_EQ(Entries(maps), 7U);
}

}  // namespace
