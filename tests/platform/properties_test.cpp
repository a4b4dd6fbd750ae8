// SPDX-License-Identifier: Apache-2.0
// Properties and the root directory. The fuzz target for properties tests the parser.
#include <gtest/gtest.h>
#include <sys/system_properties.h>
#include <unistd.h>

#include <cerrno>

#include "allocation_counter.h"
#include "platform/linux/root.h"
#include "platform_variable.h"
#include "tests/temporary_directory.h"

namespace {

std::string Get(const char* name) {
  char value[PROP_VALUE_MAX + 1];
  value[PROP_VALUE_MAX] = '#';
  const int length = __system_property_get(name, value);
  EXPECT_EQ(value[PROP_VALUE_MAX], '#') << "buffer overflow";
  EXPECT_EQ(static_cast<std::size_t>(length), std::string(value).size());
  return value;
}

TEST(Properties, SharedFileIsUsedIfTheRootHasNone) {
  const TemporaryDirectory directory;
  SetVariable("MEMLEAK_TRACKER_PROPERTIES", directory.Write("shared", "a=1\nq=2\n").c_str());
  SetVariable("MEMLEAK_TRACKER_ROOT", directory.Path("").c_str());
  EXPECT_EQ(Get("q"), "2");
  directory.Write("properties", "a=first\na=last");
  EXPECT_EQ(Get("a"), "last");
  EXPECT_EQ(Get("q"), "");
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

TEST(Root, ExpandsTheProcessId) {
  SetVariable("MEMLEAK_TRACKER_ROOT", "//");
  EXPECT_EQ(Rooted("/f"), "/f");
  SetVariable("MEMLEAK_TRACKER_ROOT", "/r%%p/%p.%p%q%/");
  // Later changes of the environment have no effect.
  setenv("MEMLEAK_TRACKER_ROOT", "/elsewhere", 1);
  const std::string own = std::to_string(getpid());
  EXPECT_EQ(Rooted("/f"), "/r%" + own + "/" + own + "." + own + "%q%/f");
  std::string too_long;
  while (too_long.size() < 10000) too_long += "/directory";
  SetVariable("MEMLEAK_TRACKER_ROOT", too_long.c_str());
  EXPECT_EQ(access(Rooted("/properties").c_str(), F_OK), -1);
  EXPECT_EQ(errno, ENAMETOOLONG);
}

}  // namespace
