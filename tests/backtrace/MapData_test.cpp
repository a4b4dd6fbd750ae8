// SPDX-License-Identifier: Apache-2.0
// Lines that the map index rejects, and libraries that it marks. tests/fuzz/maps_fuzz.cpp tests the
// lookups against a model.
#include "backtrace/MapData.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include "tests/backtrace/fakes.h"
#include "tracker/control/MemTrackControl.h"

class MapDataTest : public testing::Test {
 protected:
  // Entries are freed only while a tracker records.
  static void SetUpTestSuite() { MemTrackControl::CreateInstance()->ConfigHookStatus(false, true); }
  void SetUp() override { fakes::LogLines().clear(); }
  void TearDown() override { unlink(path_.c_str()); }

  void Write(const std::string& text) const { std::ofstream(path_) << text; }
  /// The name and the relative pc that the index returns for `pc`.
  std::string Place(std::uintptr_t pc, MapData& maps) const {
    std::uintptr_t rel_pc = 0;
    const MapEntry* entry = maps.Find(pc, &rel_pc);
    return entry == nullptr ? "none" : entry->name + "+" + std::to_string(rel_pc);
  }
  std::size_t Entries() const { return maps_.entries_.size(); }
  std::size_t JavaLibs() const { return maps_.java_native_libs_.size(); }

  const std::string path_ = testing::TempDir() + "maps." + std::to_string(getpid());
  MapData maps_{path_, platform::kAndroidPcWidth};
};

namespace {

using Lines = std::vector<std::string>;

constexpr char kNotFound[] = "6 MemLeak.Native: end, not find entry";

TEST_F(MapDataTest, RejectsPcsOfTheWrongWidth) {
  Write(
      "00001000-20000000 r-xp 00000000 00:00 0 /low\n"
      "f000000000-20000000000 r-xp 00000000 00:00 0 /high\n"
      "7ffff0000000-7ffff0002000 r-xp 00000000 00:00 0 /linux\n");
  EXPECT_EQ(Place(0x0fffffff, maps_), "none");
  EXPECT_EQ(Place(0x10000000, maps_), "/low+" + std::to_string(0x10000000 - 0x1000));
  EXPECT_EQ(Place(0xffffffffff, maps_), "/high+" + std::to_string(0xfffffffff));
  EXPECT_EQ(Place(0x10000000000, maps_), "none");
  EXPECT_EQ(fakes::LogLines(), Lines({"6 MemLeak.Native: invalid addr: addrLen = 7",
                                      "6 MemLeak.Native: invalid addr: addrLen = 11"}));
  MapData wide(path_, platform::kLinuxPcWidth);
  EXPECT_EQ(Place(0x7ffff0001000, wide), "/linux+4096");
  EXPECT_EQ(Place(0x401000, wide), "/low+" + std::to_string(0x400000));  // not position-independent
}

TEST_F(MapDataTest, ReadingEndsAtAnInvalidLine) {
  EXPECT_FALSE(maps_.ReadMaps(false));  // no file
  // The rest of a line after 1023 characters is read as a new line.
  const std::string head = "10000000-10001000 r-xp 00000000 00:00 0 ";
  const std::string next = "10001000-10002000 r-xp 00000000 00:00 0 /next\n";
  const std::string fits(1023 - head.size() - 1, 'x');
  Write(head + fits + "\n" + next);
  EXPECT_TRUE(maps_.ReadMaps(false));
  EXPECT_EQ(Place(0x10000001, maps_), fits + "+1");

  MapData cut(path_, platform::kAndroidPcWidth);
  Write(head + fits + "yyz\n" + next);
  EXPECT_FALSE(cut.ReadMaps(false));
  EXPECT_EQ(Place(0x10000001, cut), fits + "y+1");
  fakes::LogLines().clear();
  EXPECT_EQ(Place(0x10001001, cut), "none");
  EXPECT_EQ(fakes::LogLines(), Lines({kNotFound}));
}

TEST_F(MapDataTest, MarksTheCodeOfTheJavaNativeLibraries) {
  const std::string hwui = "r-xp 00000000 00:00 0 /system/lib64/libhwui.so\n";
  Write("10000000-10001000 " + hwui + "10001000-10002000 " + hwui +
        "10002000-10003000 r--p 00000000 00:00 0 /apex/com.android.i18n/lib64/libicuuc.so\n"
        "10003000-10004000 r-xp 00000000 00:00 0 /apex/com.android.i18n/lib64/libicuuc.so.1\n"
        "10004000-10005000 r-xp 00000000 00:00 0 \n"
        "10005000-10006000 r-xp 00000000 00:00 0 /apex/com.android.i18n/lib64/libicu_jni.so\n"
        "10006000-10007000 r-xp 00000000 00:00 0 /after\n");
  EXPECT_TRUE(maps_.ReadMaps(true));
  EXPECT_EQ(JavaLibs(), 3U);
  EXPECT_EQ(Entries(), 6U);  // "/after" comes after the end of reading
  EXPECT_TRUE(maps_.ReadMaps(false));
  EXPECT_EQ(JavaLibs(), 3U);
  EXPECT_EQ(Entries(), 7U);
}

}  // namespace
