// The unwinder's maps: parsing, what a re-read keeps, and lookups on the allocation path.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>
#include <unwindstack/Maps.h>

#include <atomic>
#include <thread>

#include "allocation_counter.h"
#include "tests/temporary_directory.h"

namespace {

using unwindstack::LocalUpdatableMaps;
using unwindstack::MapInfo;

TEST(Maps, FindsMappingsAndReadsAgainWhenAnAddressIsNew) {
  const TemporaryDirectory directory;
  LocalUpdatableMaps maps(directory.Path("maps"));
  EXPECT_FALSE(maps.Parse());
  EXPECT_EQ(maps.FindCode(0x2000), nullptr);
  directory.Write("maps",
                  "1000-2000 r--p 00000000 fe:01 77        /lib/first.so\n"
                  "2000-5000 r-xp 00001000 fe:01 77        /lib/first.so\n"
                  "not a mapping\n"
                  "7000-8000 rwxp 00000000 00:00 0\n"
                  "8000-9000 r-xp 0000f000 fe:01 78        /a dir/second.so (deleted)\n");
  ASSERT_TRUE(maps.Parse());
  const std::shared_ptr<MapInfo> kept = maps.Find(0x4fff);
  ASSERT_NE(kept, nullptr);
  EXPECT_EQ(kept->start(), 0x2000U);
  EXPECT_EQ(kept->end(), 0x5000U);
  EXPECT_EQ(kept->offset(), 0x1000U);
  EXPECT_EQ(kept->flags(), static_cast<unsigned>(PROT_READ | PROT_EXEC));
  const std::shared_ptr<MapInfo> gone = maps.Find(0x8000);
  EXPECT_STREQ(gone->name().c_str(), "/a dir/second.so (deleted)");
  for (const std::uint64_t gap : {0x0, 0xfff, 0x6000, 0x9000}) EXPECT_EQ(maps.Find(gap), nullptr);

  const LocalUpdatableMaps::CodeRange* code = nullptr;
  EXPECT_EQ(AllocationsDuring([&] { code = maps.FindCode(0x2abc); }), 0);
  ASSERT_NE(code, nullptr);
  EXPECT_EQ(maps.FindCode(0x7000)->basename, "");
  EXPECT_EQ(maps.FindCode(0x1000), nullptr);  // mapped, but not executable

  // A library that was loaded since is found, and what was handed out before stays valid.
  directory.Write("maps",
                  "2000-5000 r-xp 00001000 fe:01 77 /lib/first.so\n"
                  "8000-a000 r-xp 00000000 fe:01 79 /lib/third.so\n");
  ASSERT_NE(maps.FindCode(0x9000), nullptr);
  EXPECT_EQ(maps.FindCode(0x9000)->basename, "third.so");
  EXPECT_EQ(code->basename, "first.so");
  EXPECT_EQ(maps.Find(0x2000), kept);
  EXPECT_EQ(maps.Find(0x1000), nullptr);
  EXPECT_STREQ(gone->name().c_str(), "/a dir/second.so (deleted)");

  std::filesystem::remove(directory.Path("maps"));
  EXPECT_FALSE(maps.Reparse());
  EXPECT_EQ(maps.Find(0x2000), kept);
}

TEST(Maps, LookupsRunBesideReReads) {
  LocalUpdatableMaps maps;
  ASSERT_TRUE(maps.Parse());
  std::atomic<bool> stop{false};
  std::thread reader([&] {
    while (!stop) {
      const auto* code = maps.FindCode(reinterpret_cast<std::uint64_t>(&AllocationsDuring));
      ASSERT_NE(code, nullptr);
      EXPECT_EQ(code->basename, "platform_maps_test");
    }
  });
  for (int i = 0; i < 50; ++i) {
    const auto size = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    void* page = mmap(nullptr, size, PROT_READ | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(page, MAP_FAILED);
    EXPECT_NE(maps.Find(reinterpret_cast<std::uint64_t>(page)), nullptr);
    EXPECT_TRUE(maps.Reparse());
    munmap(page, size);
  }
  stop = true;
  reader.join();
}

}  // namespace
