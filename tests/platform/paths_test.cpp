// The root directory and the paths below it, in this process and in a forked child.
#include "platform/paths.h"

#include <sys/wait.h>
#include <unistd.h>

#include "platform/linux/root.h"
#include "platform/program_name.h"
#include "temporary_directory.h"

namespace {

std::string Rooted(const char* below) {
  char path[platform::kPathBytes];
  const std::size_t length = platform::RootedPath(below, path);
  EXPECT_EQ(std::string(path).size(), length);
  return path;
}

TEST(Root, IsTheFileSystemsOwnWhenUnset) {
  for (const char* root : {static_cast<const char*>(nullptr), "", "/", "//"}) {
    SetVariable("MEMLEAK_TRACKER_ROOT", root);
    EXPECT_EQ(Rooted("/properties"), "/properties");
    EXPECT_EQ(platform::ExceptionDevicePath(), "/dev/kxlog_exception");
  }
}

TEST(Root, StandsForTheProcessThatAsks) {
  SetVariable("MEMLEAK_TRACKER_ROOT", "/r%%p/%p.%p%q%/");
  const std::string pid = std::to_string(getpid());
  const std::string expected = "/r%" + pid + "/" + pid + "." + pid + "%q%/f";
  EXPECT_EQ(Rooted("/f"), expected);
  // What the program does to its environment later makes no difference.
  setenv("MEMLEAK_TRACKER_ROOT", "/elsewhere", 1);
  EXPECT_EQ(Rooted("/f"), expected);

  const pid_t child = fork();
  if (child == 0) {
    const std::string own = std::to_string(getpid());
    _exit(Rooted("/f") == "/r%" + own + "/" + own + "." + own + "%q%/f" ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

TEST(Root, TooLongIsTooLongForTheKernelAsWell) {
  std::string root;
  while (root.size() < 10000) root += "/directory";
  SetVariable("MEMLEAK_TRACKER_ROOT", root.c_str());
  EXPECT_EQ(access(Rooted("/properties").c_str(), F_OK), -1);
  EXPECT_EQ(errno, ENAMETOOLONG);
}

TEST(ReportPath, MakesTheDirectoriesThatLeadToIt) {
  const TemporaryDirectory directory;
  const std::string root = directory.Path("/new/root.%p");
  SetVariable("MEMLEAK_TRACKER_ROOT", root.c_str());
  const std::string path = platform::ReportPath();
  EXPECT_EQ(path, directory.Path("/new/root.") + std::to_string(getpid()) +
                      "/data/log/reliability/allocations_dump");
  WriteFile(path, "report");
  EXPECT_EQ(ReadFile(path), "report");
  EXPECT_EQ(platform::ReportPath(), path);
  EXPECT_EQ(ReadFile(path), "report");
}

TEST(ReportPath, IsGivenEvenWhenItsDirectoriesCannotBeMade) {
  const TemporaryDirectory directory;
  WriteFile(directory.Path("/file"), "");
  SetVariable("MEMLEAK_TRACKER_ROOT", directory.Path("/file").c_str());
  EXPECT_EQ(platform::ReportPath(), directory.Path("/file/data/log/reliability/allocations_dump"));
}

TEST(ProgramName, IsTheLastComponent) {
  EXPECT_STREQ(platform::ProgramName(), "platform_paths_test");
}

}  // namespace
