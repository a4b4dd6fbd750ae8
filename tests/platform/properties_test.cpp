// Properties from the root directory's file: which line counts, and what becomes of odd files.
#include <sys/system_properties.h>
#include <unistd.h>

#include <cerrno>

#include "allocation_counter.h"
#include "temporary_directory.h"

namespace {

class Properties : public testing::Test {
 protected:
  void SetUp() override {
    SetVariable("MEMLEAK_TRACKER_ROOT", directory_.Path().c_str());
    SetVariable("MEMLEAK_TRACKER_PROPERTIES", nullptr);
  }

  std::string Get(const char* name) {
    char value[PROP_VALUE_MAX + 1];
    value[PROP_VALUE_MAX] = '#';
    const int length = __system_property_get(name, value);
    EXPECT_EQ(value[PROP_VALUE_MAX], '#') << "written beyond the end";
    std::string text = value;
    EXPECT_EQ(static_cast<std::size_t>(length), text.size());
    return text;
  }

  void Write(const std::string& text) { WriteFile(directory_.Path("/properties"), text); }

  const TemporaryDirectory directory_;
};

TEST_F(Properties, LastLineWithExactlyTheNameCounts) {
  Write("a.b=first\na.bc=longer\na=shorter\nxa.b=other\n a.b=blank\na.b\na.b =blank\na.b=la=st\n");
  EXPECT_EQ(Get("a.b"), "la=st");
  EXPECT_EQ(Get("a"), "shorter");
  EXPECT_EQ(Get("a.bc"), "longer");
  EXPECT_EQ(Get("a.b.c"), "");
  EXPECT_EQ(Get(""), "");
}

TEST_F(Properties, ReadsTheFileAfreshEachTime) {
  EXPECT_EQ(Get("p"), "");
  Write("p=1\n");
  EXPECT_EQ(Get("p"), "1");
  Write("p=2\n");
  EXPECT_EQ(Get("p"), "2");
  Write("p=2\np=\n");
  EXPECT_EQ(Get("p"), "");
}

TEST_F(Properties, LineEndsAndBlanks) {
  Write("crlf=dos\r\nempty=\r\nblank= v \ninner=a\rb\nlast=no newline");
  EXPECT_EQ(Get("crlf"), "dos");
  EXPECT_EQ(Get("empty"), "");
  EXPECT_EQ(Get("blank"), " v ");
  EXPECT_EQ(Get("inner"), "a\rb");
  EXPECT_EQ(Get("last"), "no newline");
}

TEST_F(Properties, LongValuesAreCutAndLongLinesDoNoHarm) {
  const std::string longest(91, 'v');
  Write("x=" + std::string(5000, 'y') + "\n" + std::string(3000, 'n') + "=1\nfits=" + longest +
        "\r\ncut=" + longest + "w\nat_cr=" + std::string(90, 'v') + "\rtail\nafter=1\n");
  EXPECT_EQ(Get("fits"), longest);
  EXPECT_EQ(Get("cut"), longest);
  EXPECT_EQ(Get("at_cr"), std::string(90, 'v') + "\r");
  EXPECT_EQ(Get("x"), std::string(91, 'y'));
  EXPECT_EQ(Get("after"), "1");
}

TEST_F(Properties, SharedFileCountsOnlyWhileTheRootHasNone) {
  WriteFile(directory_.Path("/shared"), "p=shared\nq=shared\n");
  SetVariable("MEMLEAK_TRACKER_PROPERTIES", directory_.Path("/shared").c_str());
  EXPECT_EQ(Get("p"), "shared");
  Write("p=own\n");
  EXPECT_EQ(Get("p"), "own");
  EXPECT_EQ(Get("q"), "");
  SetVariable("MEMLEAK_TRACKER_ROOT", directory_.Path("/no/such/root").c_str());
  EXPECT_EQ(Get("p"), "shared");
  SetVariable("MEMLEAK_TRACKER_PROPERTIES", directory_.Path("/missing").c_str());
  EXPECT_EQ(Get("p"), "");
}

TEST_F(Properties, KeepErrnoAndAllocateNothing) {
  Write("p=1\n");
  for (const std::string& root :
       {directory_.Path(), directory_.Path("/missing"), directory_.Path("/properties")}) {
    SetVariable("MEMLEAK_TRACKER_ROOT", root.c_str());
    errno = EOWNERDEAD;
    EXPECT_EQ(AllocationsDuring([] {
                char value[PROP_VALUE_MAX];
                __system_property_get("p", value);
              }),
              0);
    EXPECT_EQ(errno, EOWNERDEAD);
  }
}

}  // namespace
