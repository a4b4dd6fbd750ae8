// Properties: what is kept, what is replaced, and a root that cannot be written.
#include "tools/root_directory.h"

#include <gtest/gtest.h>

#include "tests/tools/temp_dir.h"
#include "tools/user_error.h"

namespace memleak {
namespace {

TEST(Properties, LastUsableLineCounts) {
  const BacktraceSettings settings = ParseSettings(
      "vastel.memleak.backtacetype=1xyz\nvastel.memleak.backtacemaxnum=20\n"
      "vastel.memleak.backtacemaxnum=12a\nvastel.memleak.backtacetype=\nnonsense\n");
  EXPECT_EQ(settings.type, '1');
  EXPECT_EQ(settings.depth, 20U);
  EXPECT_EQ(ParseSettings("").type, std::nullopt);
  EXPECT_EQ(ParseSettings("vastel.memleak.backtacemaxnum=99999999999").depth, std::nullopt);
}

TEST(Properties, UpdateKeepsEverythingElse) {
  const std::string before = "persist.sys.memleak.hookLib=a.so\nvastel.memleak.backtacetype=0\n#x";
  const std::string after = UpdateProperties(before, {.depth = 24, .type = '1'});
  EXPECT_EQ(after,
            "persist.sys.memleak.hookLib=a.so\n#x\nvastel.memleak.backtacetype=1\n"
            "vastel.memleak.backtacemaxnum=24\n");
  EXPECT_EQ(UpdateProperties(after, {}), after);
}

TEST(Properties, AreWrittenIntoANewRoot) {
  const TempDir directory;
  const std::string root = directory.Path("a/b");
  WriteProperties(root, "x=1\n");
  WriteProperties(root, "x=2\n");
  EXPECT_EQ(ReadTextFile(root + "/properties"), "x=2\n");
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(root), {}), 1);
}

TEST(Properties, RootThatCannotBeWritten) {
  const TempDir directory;
  const std::string file = directory.Write("file", "");
  for (const std::string& root : {file, file + "/below", std::string("/proc/nonexistent")}) {
    try {
      WriteProperties(root, "x=1\n");
      ADD_FAILURE() << root;
    } catch (const UserError& error) {
      EXPECT_NE(std::string(error.what()).find("not writable: " + root), std::string::npos);
      EXPECT_NE(std::string(error.what()).find("--root"), std::string::npos);
    }
  }
}

}  // namespace
}  // namespace memleak
