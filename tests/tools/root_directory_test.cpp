// Properties: what is kept, what is replaced, and a root that cannot be written.
#include "tools/root_directory.h"

#include <gtest/gtest.h>

#include "tests/temporary_directory.h"
#include "tools/user_error.h"

namespace memleak {
namespace {

TEST(Properties, UpdateReplacesOnlyWhatIsGiven) {
  const std::string before =
      "persist.sys.memleak.hookLib=a.so\nvastel.memleak.backtacetype=0\n"
      "vastel.memleak.backtacemaxnum=20\nvastel.memleak.backtacemaxnum=12a\n#x";
  EXPECT_EQ(ParseSettings(before).depth, 20U) << "the last usable line";
  EXPECT_EQ(UpdateProperties(before, {.depth = 24, .type = '1'}),
            "persist.sys.memleak.hookLib=a.so\n#x\nvastel.memleak.backtacetype=1\n"
            "vastel.memleak.backtacemaxnum=24\n");
}

TEST(Properties, AreWrittenWholeIntoANewRootOrRefused) {
  const TemporaryDirectory directory;
  const std::string root = directory.Path("a/b");
  WriteProperties(root, "x=1\n");
  WriteProperties(root, "x=2\n");
  EXPECT_EQ(directory.Read("a/b/properties"), "x=2\n");
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(root), {}), 1);
  EXPECT_THROW(WriteProperties(root + "/properties/below", "x=1\n"), UserError);
}

}  // namespace
}  // namespace memleak
