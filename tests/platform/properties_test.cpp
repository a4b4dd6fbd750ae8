// Properties and paths below the root directory: which line and which file count, for whom.
#include <gtest/gtest.h>
#include <sys/system_properties.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "allocation_counter.h"
#include "platform/linux/root.h"
#include "platform/paths.h"
#include "platform_variable.h"
#include "tests/temporary_directory.h"

namespace {

std::string Get(const char* name) {
  char value[PROP_VALUE_MAX + 1];
  value[PROP_VALUE_MAX] = '#';
  const int length = __system_property_get(name, value);
  EXPECT_EQ(value[PROP_VALUE_MAX], '#') << "written beyond the end";
  EXPECT_EQ(static_cast<std::size_t>(length), std::string(value).size());
  return value;
}

TEST(Properties, LastLineWithExactlyTheNameCountsAndIsCutToFit) {
  const TemporaryDirectory directory;
  SetVariable("MEMLEAK_TRACKER_ROOT", directory.Path("").c_str());
  EXPECT_EQ(Get("a"), "");  // no file yet
  const std::string longest(91, 'v');
  directory.Write("properties",
                  "a.b=first\na.bc=longer\na=shorter\nxa.b=other\n a.b=blank\na.b\na.b =blank\n"
                  "a.b=la=st\ncrlf=dos\r\nempty=x\nempty=\nblank= v \nx=" +
                      std::string(5000, 'y') + "\nfits=" + longest + "\r\ncut=" + longest +
                      "w\nlast=no newline");
  const std::pair<const char*, std::string> cases[] = {{"a.b", "la=st"},
                                                       {"a", "shorter"},
                                                       {"a.bc", "longer"},
                                                       {"a.b.c", ""},
                                                       {"", ""},
                                                       {"crlf", "dos"},
                                                       {"empty", ""},
                                                       {"blank", " v "},
                                                       {"fits", longest},
                                                       {"cut", longest},
                                                       {"x", std::string(91, 'y')},
                                                       {"last", "no newline"}};
  for (const auto& [name, value] : cases) EXPECT_EQ(Get(name), value) << name;
  // The file that a launcher shares counts only while the root has none.
  SetVariable("MEMLEAK_TRACKER_PROPERTIES", directory.Write("shared", "a=1\nq=2\n").c_str());
  EXPECT_EQ(Get("q"), "");
  SetVariable("MEMLEAK_TRACKER_ROOT", directory.Path("none").c_str());
  EXPECT_EQ(Get("q"), "2");
}

TEST(Properties, KeepErrnoAndAllocateNothing) {
  const TemporaryDirectory directory;
  const std::string file = directory.Write("properties", "p=1\n");
  for (const std::string& root : {directory.Path(""), directory.Path("missing"), file}) {
    SetVariable("MEMLEAK_TRACKER_ROOT", root.c_str());
    errno = EOWNERDEAD;
    char value[PROP_VALUE_MAX];
    EXPECT_EQ(AllocationsDuring([&] { __system_property_get("p", value); }), 0);
    EXPECT_EQ(errno, EOWNERDEAD);
  }
}

std::string Rooted(const char* below) {
  char path[platform::kPathBytes];
  const std::size_t length = platform::RootedPath(below, path);
  return {path, length};
}

TEST(Root, StandsForTheProcessThatAsks) {
  for (const char* root : {static_cast<const char*>(nullptr), "", "/", "//"}) {
    SetVariable("MEMLEAK_TRACKER_ROOT", root);
    EXPECT_EQ(Rooted("/f"), "/f");
  }
  SetVariable("MEMLEAK_TRACKER_ROOT", "/r%%p/%p.%p%q%/");
  // What the program does to its environment later makes no difference.
  setenv("MEMLEAK_TRACKER_ROOT", "/elsewhere", 1);
  const auto is_own = [] {
    const std::string own = std::to_string(getpid());
    return Rooted("/f") == "/r%" + own + "/" + own + "." + own + "%q%/f";
  };
  EXPECT_TRUE(is_own());
  const pid_t child = fork();
  if (child == 0) _exit(is_own() ? 0 : 1);
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);

  std::string too_long;
  while (too_long.size() < 10000) too_long += "/directory";
  SetVariable("MEMLEAK_TRACKER_ROOT", too_long.c_str());
  EXPECT_EQ(access(Rooted("/properties").c_str(), F_OK), -1);
  EXPECT_EQ(errno, ENAMETOOLONG);
}

TEST(ReportPath, MakesTheDirectoriesThatLeadToItWhereItCan) {
  const TemporaryDirectory directory;
  const std::string below = "/data/log/reliability/allocations_dump";
  SetVariable("MEMLEAK_TRACKER_ROOT", directory.Path("new/root.%p").c_str());
  const std::string own = "new/root." + std::to_string(getpid()) + below;
  EXPECT_EQ(platform::ReportPath(), directory.Path(own));
  directory.Write(own, "report");
  EXPECT_EQ(platform::ReportPath(), directory.Path(own));
  EXPECT_EQ(directory.Read(own), "report");
  SetVariable("MEMLEAK_TRACKER_ROOT", directory.Path(own).c_str());
  EXPECT_EQ(platform::ReportPath(), directory.Path(own) + below);
}

}  // namespace
