// SPDX-License-Identifier: Apache-2.0
// Files and directories that another user may have put in place of the tracker's: they are refused,
// opening never blocks, and no other file changes.
#include <async_safe/log.h>
#include <gtest/gtest.h>
#include <sys/system_properties.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "platform/paths.h"
#include "platform_variable.h"
#include "tests/temporary_directory.h"

namespace {

const std::string kVictimText = "a=1\nfile of the victim\n";

// Each uses one of the four files that the tracker opens. Returns "" on success or why it failed.

std::string Report(const TemporaryDirectory& directory) {
  SetVariable("MEMLEAK_TRACKER_LOG", directory.Path("log.of.report").c_str());
  std::FILE* file = platform::OpenReportFile();
  SetVariable("MEMLEAK_TRACKER_LOG", nullptr);
  const std::string log = directory.Read("log.of.report");
  if (file == nullptr) return log.substr(0, log.size() - 1);
  EXPECT_EQ(lseek(fileno(file), 0, SEEK_END), 0);
  EXPECT_EQ(std::fputs("report", file), 1);
  EXPECT_EQ(std::fclose(file), 0);
  EXPECT_EQ(log, "");
  return "";
}

std::string Properties(const TemporaryDirectory& /*directory*/) {
  char value[PROP_VALUE_MAX];
  return __system_property_get("a", value) == 1 ? "" : "unset";
}

std::string Device(const TemporaryDirectory& /*directory*/) {
  std::string path;
  const int device = platform::OpenExceptionDevice(path);
  if (device < 0) return std::strerror(errno);
  close(device);
  return "";
}

std::string Log(const TemporaryDirectory& directory) {
  const std::string path = directory.Path("log");
  SetVariable("MEMLEAK_TRACKER_LOG", path.c_str());
  async_safe_format_log(ANDROID_LOG_INFO, "Tag", "line");
  SetVariable("MEMLEAK_TRACKER_LOG", nullptr);
  const std::string log = directory.Read("log");
  return log.find("line") != std::string::npos ? "" : "unwritten";
}

struct Case {
  const char* prepare;  ///< shell commands, run in a directory with a file "victim"
  std::string (*use)(const TemporaryDirectory&);
  const char* outcome;  ///< a part of the result of `use`, or "" for success
};

// $D is the report's directory, $R the report, "root" the root directory, "log" the log.
constexpr Case kCases[] = {
    // directories
    {"mkdir -p -m 755 $D", Report, ""},
    {"chmod 1777 .", Report, ""},
    {"mkdir root; chown 1234 root", Report, "/root: it belongs to another user"},
    {"mkdir -m 770 root", Report, "/root: other users may write to it"},
    {"mkdir own; ln -s own root", Report, "/root: it is a symbolic link"},
    {"echo >root", Report, "/root: Not a directory"},
    {"mkdir -p root/data; chown 1234 root/data", Report, "root/data: it belongs to another user"},
    {"mkdir -p own root/data; ln -s ../../own root/data/log", Report,
     "/log: it is a symbolic link"},
    {"mkdir -p $D; chmod 1777 $D", Report, "/reliability: other users may write to it"},
    {"mkdir root; cp victim root/properties", Properties, ""},
    {"mkdir root; cp victim root/properties; chmod 702 root", Properties, "unset"},
    {"mkdir root; cp victim root/properties; chown 1234 root", Properties, "unset"},
    {"mkdir -p root/dev; echo >root/dev/kxlog_exception", Device, ""},
    {"mkdir -p root/dev; echo >root/dev/kxlog_exception; chmod 777 root/dev", Device,
     "not permitted"},
    // files
    {"mkdir -p $D; cp victim $R; chmod 644 $R", Report, ""},
    {"mkdir -p $D; ln -s ../../../../victim $R", Report, "allocations_dump: it is a symbolic link"},
    {"mkdir -p $D; ln victim $R", Report, "it has more than one name"},
    {"mkdir -p $D; cp victim $R; chown 1234 $R; chmod 666 $R", Report, "to another user"},
    {"mkdir -p $D; mkfifo $R", Report, "No such device or address"},
    {"mkdir -p $D; mkfifo $R; exec 3<>$R; sleep 2 >&- 2>&- & true", Report,
     "it is not a regular file"},
    {"mkdir root; mkfifo root/properties", Properties, "unset"},
    {"mkdir root; cp victim root/properties; chown 1234 root/properties", Properties, "unset"},
    {"mkdir -p root/dev; mkfifo root/dev/kxlog_exception", Device, "No such device or address"},
    {"mkdir -p root/dev; ln -s ../../victim root/dev/kxlog_exception", Device, "symbolic links"},
    {"cp victim log", Log, ""},
    {"ln -s victim log", Log, "unwritten"},
    {"ln victim log", Log, "unwritten"},
    {"cp victim log; chown 1234 log; chmod 666 log", Log, "unwritten"},
};

TEST(HostileFiles, AreRefusedAndOpeningNeverBlocks) {
  for (const Case& c : kCases) {
    // Only root can change the owner of a file.
    if (geteuid() != 0 && std::strstr(c.prepare, "chown") != nullptr) continue;
    SCOPED_TRACE(c.prepare);
    const TemporaryDirectory directory;
    directory.Write("victim", kVictimText);
    SetVariable("MEMLEAK_TRACKER_ROOT", directory.Path("root").c_str());
    const std::string script = "cd " + directory.Path("") +
                               "; umask 022; D=root/data/log/reliability; " +
                               "R=$D/allocations_dump; " + c.prepare;
    ASSERT_EQ(std::system(script.c_str()), 0);
    const std::string outcome = c.use(directory);
    const bool is_expected =
        *c.outcome == '\0' ? outcome.empty() : outcome.find(c.outcome) != std::string::npos;
    EXPECT_TRUE(is_expected) << "outcome: " << outcome;
    EXPECT_EQ(directory.Read("victim"), kVictimText);
  }
}

TEST(HostileFiles, NewFilesArePrivate) {
  const TemporaryDirectory directory;
  SetVariable("MEMLEAK_TRACKER_ROOT", directory.Path("above/root.%p").c_str());
  EXPECT_EQ(Report(directory), "");
  const std::string find = "cd " + directory.Path("above") + "; find . -printf '%m %P\\n' >../made";
  ASSERT_EQ(std::system(find.c_str()), 0);
  const std::string root = "root." + std::to_string(getpid());
  EXPECT_EQ(directory.Read("made"), "700 \n700 " + root + "\n700 " + root + "/data\n700 " + root +
                                        "/data/log\n700 " + root + "/data/log/reliability\n600 " +
                                        root + "/data/log/reliability/allocations_dump\n");
}

}  // namespace
