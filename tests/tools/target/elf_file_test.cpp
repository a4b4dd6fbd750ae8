// SPDX-License-Identifier: Apache-2.0
// Damaged libraries. Whole ones are read by `memleak libs` and `on`.
#include "tools/target/elf_file.h"

#include <gtest/gtest.h>

#include <cstring>

#include "tests/temporary_directory.h"

namespace memleak {
namespace {

TEST(DynamicFile, DamagedFilesAreSafe) {
  const TemporaryDirectory directory;
  std::filesystem::copy_file(FIXTURE_HOOK_PLAIN, directory.Path("whole.so"));
  const std::string whole = directory.Read("whole.so");
  ASSERT_GT(whole.size(), 4096U);
  std::size_t readable = 0;
  const auto read = [&](const std::string& bytes) {
    if (ReadDynamicFile(directory.Write("damaged.so", bytes), {"mmap", "ioctl"})) ++readable;
  };
  for (std::size_t size = 0; size < whole.size(); size += 509) read(whole.substr(0, size));
  // Overwrites the headers and the dynamic section, eight bytes at a time. The section starts with
  // DT_INIT.
  const std::string dynamic("\x0c\0\0\0\0\0\0\0", 8);
  for (const std::size_t start : {std::size_t{0}, whole.find(dynamic, 4096)}) {
    for (std::size_t at = start; at < start + 512 && at + 8 <= whole.size(); at += 8) {
      for (const int byte : {0x00, 0x7f, 0xff}) {
        std::string bytes = whole;
        std::memset(&bytes[at], byte, 8);
        read(bytes);
      }
    }
  }
  EXPECT_GT(readable, 100U);
}

}  // namespace
}  // namespace memleak
