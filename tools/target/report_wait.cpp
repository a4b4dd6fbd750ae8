// inotify on the report's directory, or on the deepest one above it that exists.
#include "tools/target/report_wait.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "protocol/protocol.h"
#include "tools/base/files.h"
#include "tools/base/user_error.h"

namespace memleak {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

// The report is looked at this often even without an event: file systems exist that send none.
constexpr milliseconds kLook(250);
constexpr std::uint32_t kEvents =
    IN_CREATE | IN_MOVED_TO | IN_MODIFY | IN_CLOSE_WRITE | IN_DELETE_SELF | IN_MOVE_SELF;

constexpr std::int64_t kNanoseconds = 1'000'000'000;

std::int64_t Nanoseconds(const timespec& time) {
  return time.tv_sec * kNanoseconds + time.tv_nsec;
}

std::string OldPath(const std::string& path) {
  return path + ".old";
}

/// Takes a watch off. Its type is int in the GNU C library and uint32_t in Android's.
template <typename Watch>
void RemoveWatch(int (*remove)(int, Watch), int events, int watch) {
  remove(events, static_cast<Watch>(watch));
}

/// Follows the report's directory as the levels above it come into being.
class DirectoryWatch {
 public:
  explicit DirectoryWatch(const std::string& directory)
      : directory_(directory), events_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
    if (events_ < 0) throw TooMany();
    Follow();
  }
  ~DirectoryWatch() { close(events_); }
  DirectoryWatch(const DirectoryWatch&) = delete;
  DirectoryWatch& operator=(const DirectoryWatch&) = delete;

  /// Sleeps until something happens there, at most `limit`.
  void Wait(milliseconds limit) {
    pollfd poll_events{events_, POLLIN, 0};
    if (poll(&poll_events, 1, static_cast<int>(limit.count())) > 0) Drain();
    Follow();
  }

 private:
  static UserError TooMany() {
    return {std::string("cannot watch the report's directory: ") + std::strerror(errno),
            "raise fs.inotify.max_user_instances or max_user_watches with sysctl"};
  }

  std::string DeepestExisting() const {
    std::string path = directory_;
    while (!IsDirectory(path) && ParentPath(path) != path) path = ParentPath(path);
    return path;
  }

  void Follow() {
    // A level made between the look and the watch is seen by the second look.
    while (true) {
      const std::string deepest = DeepestExisting();
      if (deepest == watched_) return;
      if (watch_ >= 0) RemoveWatch(inotify_rm_watch, events_, watch_);
      watch_ = inotify_add_watch(events_, deepest.c_str(), kEvents);
      if (watch_ < 0 && errno == ENOSPC) throw TooMany();
      // A directory that may not be read is left to the regular looks.
      watched_ = deepest;
    }
  }

  void Drain() const {
    alignas(inotify_event) std::array<char, 4096> buffer{};
    while (read(events_, buffer.data(), buffer.size()) > 0) {
    }
  }

  std::string directory_;
  std::string watched_;
  int events_ = -1;
  int watch_ = -1;
};

}  // namespace

std::optional<FileState> StateOf(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) return std::nullopt;
  return FileState{status.st_dev, status.st_ino, status.st_size, Nanoseconds(status.st_mtim),
                   Nanoseconds(status.st_ctim)};
}

std::optional<FileState> MoveOldReportAside(const std::string& path) {
  if (!StateOf(path)) return std::nullopt;
  if (std::rename(path.c_str(), OldPath(path).c_str()) == 0) return std::nullopt;
  return StateOf(path);
}

void RestoreOldReport(const std::string& path) {
  if (!StateOf(path)) std::rename(OldPath(path).c_str(), path.c_str());
}

bool EndsComplete(const std::string& path) {
  const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (file < 0) return false;
  const std::string end_line = std::string("\n") + protocol::kReportEnd;
  std::string tail(end_line.size(), '\0');
  const off_t size = lseek(file, 0, SEEK_END);
  const auto length = static_cast<off_t>(tail.size());
  const bool read_tail =
      size >= length && pread(file, tail.data(), tail.size(), size - length) == length;
  close(file);
  return read_tail && tail == end_line;
}

WaitResult WaitForReport(const WaitOptions& options) {
  const auto start = steady_clock::now();
  DirectoryWatch watch(ParentPath(options.path));
  while (true) {
    // Asked before the look at the file: what a process wrote before it ended still counts.
    const bool alive = options.is_alive();
    const std::optional<FileState> state = StateOf(options.path);
    const bool fresh = state && state != options.old;
    if (fresh && EndsComplete(options.path)) return WaitResult::kComplete;
    if (!alive) return WaitResult::kProcessEnded;

    const auto waited = std::chrono::duration_cast<milliseconds>(steady_clock::now() - start);
    if (options.timeout.count() != 0 && waited >= options.timeout) return WaitResult::kTimeout;
    if (options.progress) options.progress(waited, fresh ? state->size : 0);
    const milliseconds left = options.timeout - waited;
    watch.Wait(options.timeout.count() == 0 ? kLook : std::clamp(left, milliseconds(1), kLook));
  }
}

}  // namespace memleak
