// SPDX-License-Identifier: Apache-2.0
// Opens a path one directory at a time, and checks each file after it is open. See the header.
#include "protocol/private_files.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace protocol {
namespace {

constexpr mode_t kDirectoryMode = 0700;
constexpr mode_t kFileMode = 0600;
constexpr mode_t kOthersWrite = S_IWGRP | S_IWOTH;

constexpr char kOtherOwner[] = "it belongs to another user";
constexpr char kOthersMayWrite[] = "other users may write to it";
constexpr char kLink[] = "it is a symbolic link";
constexpr char kNotRegular[] = "it is not a regular file";
constexpr char kOtherNames[] = "it has more than one name (hard links)";

// The C library's open and close are cancellation points.
int Open(int directory, const char* name, int flags) {
  return static_cast<int>(
      syscall(SYS_openat, directory, name, flags | O_CLOEXEC | O_NOCTTY, kFileMode));
}

void Close(int file) {
  const int saved_errno = errno;
  syscall(SYS_close, file);
  errno = saved_errno;
}

int Refuse(Refusal& refusal, std::size_t path_bytes, int error, const char* why = nullptr) {
  refusal = {path_bytes, error, why};
  errno = error;
  return -1;
}

/// Root is trusted, since it has full access to the caller anyway.
bool IsTrusted(uid_t owner) {
  return owner == geteuid() || owner == 0;
}

/// Returns why the open directory is not private; null if it is.
const char* DirectoryFault(int directory) {
  struct stat status;
  if (fstat(directory, &status) != 0 || !IsTrusted(status.st_uid)) return kOtherOwner;
  return (status.st_mode & kOthersWrite) != 0 ? kOthersMayWrite : nullptr;
}

/// Returns why the open file must not be used for `use`; null if it may be.
const char* FileFault(const struct stat& status, Use use) {
  const bool is_regular = S_ISREG(status.st_mode);
  switch (use) {
    case Use::kRead:
      if (!is_regular) return kNotRegular;
      return IsTrusted(status.st_uid) ? nullptr : kOtherOwner;
    case Use::kReplace:
    case Use::kAppend:
      if (!is_regular && use == Use::kReplace) return kNotRegular;
      if (S_ISCHR(status.st_mode)) return nullptr;
      if (status.st_uid != geteuid()) return kOtherOwner;
      return is_regular && status.st_nlink > 1 ? kOtherNames : nullptr;
    case Use::kCreate:
    case Use::kDevice:
      break;
  }
  return nullptr;
}

int Flags(Use use) {
  switch (use) {
    case Use::kRead:
      return O_RDONLY | O_NONBLOCK;
    case Use::kCreate:
      return O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW;
    case Use::kReplace:
      return O_WRONLY | O_CREAT | O_NONBLOCK | O_NOFOLLOW;
    case Use::kAppend:
      return O_WRONLY | O_APPEND | O_CREAT | O_NONBLOCK | O_NOFOLLOW;
    case Use::kDevice:
      break;
  }
  return O_WRONLY | O_NONBLOCK | O_NOFOLLOW;
}

/// Returns why `name` could not be opened if that is more exact than errno, otherwise null.
const char* LinkFault(int directory, const char* name) {
  const int saved_errno = errno;
  struct stat status;
  const bool is_link =
      fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(status.st_mode);
  errno = saved_errno;
  return is_link ? kLink : nullptr;
}

/// Opens the directory `name` in `parent` without following links. Creates it first if it is
/// missing and `make` is set.
int OpenChild(int parent, const char* name, bool make) {
  constexpr int kChild = O_PATH | O_DIRECTORY | O_NOFOLLOW;
  const int child = Open(parent, name, kChild);
  if (child >= 0 || errno != ENOENT || !make) return child;
  // Another process may create it first. The caller checks it in both cases.
  if (mkdirat(parent, name, kDirectoryMode) != 0 && errno != EEXIST) return -1;
  return Open(parent, name, kChild);
}

}  // namespace

const char* Refusal::Reason() const {
  return why != nullptr ? why : std::strerror(error);
}

int OpenDirectoryOf(char* path, std::size_t root_bytes, Missing missing, Refusal& refusal) {
  // The kernel's limit for paths, which does not apply if single names are opened.
  if (std::strlen(path) >= PATH_MAX) return Refuse(refusal, root_bytes, ENAMETOOLONG);
  while (root_bytes > 0 && path[root_bytes - 1] == '/') --root_bytes;
  const bool is_absolute = path[0] == '/';
  int directory = Open(AT_FDCWD, is_absolute ? "/" : ".", O_PATH | O_DIRECTORY);
  if (directory < 0) return Refuse(refusal, 1, errno);
  const char* fault = root_bytes == 0 ? DirectoryFault(directory) : nullptr;
  std::size_t end = is_absolute ? 1 : 0;
  bool is_private = false;  // set at the root directory, and at the first missing directory
  while (fault == nullptr) {
    char* const name = path + end + std::strspn(path + end, "/");
    char* const slash = std::strchr(name, '/');
    if (slash == nullptr) return directory;
    end = static_cast<std::size_t>(slash - path);
    is_private = is_private || end >= root_bytes;
    *slash = '\0';
    // Above the root, the whole path is used: an emulator may redirect it.
    int next = is_private ? -1 : Open(AT_FDCWD, path, O_PATH | O_DIRECTORY);
    if (next < 0 && (is_private || errno == ENOENT)) {
      is_private = true;
      next = OpenChild(directory, name, missing == Missing::kMake);
    }
    const int error = errno;
    fault = next < 0 ? LinkFault(directory, name) : is_private ? DirectoryFault(next) : nullptr;
    *slash = '/';
    Close(directory);
    if (next < 0) return Refuse(refusal, end, error, fault);
    directory = next;
  }
  Close(directory);
  return Refuse(refusal, end, EPERM, fault);
}

int OpenFile(int directory, const char* name, Use use, Refusal& refusal) {
  const std::size_t bytes = std::strlen(name);
  const int file = Open(directory, name, Flags(use));
  if (file < 0) {
    const int error = errno;
    return Refuse(refusal, bytes, error, LinkFault(directory, name));
  }
  struct stat status;
  const char* fault = fstat(file, &status) == 0 ? FileFault(status, use) : kNotRegular;
  if (fault != nullptr) {
    Close(file);
    return Refuse(refusal, bytes, EPERM, fault);
  }
  if (use == Use::kReplace && ftruncate(file, 0) != 0) {
    const int error = errno;
    Close(file);
    return Refuse(refusal, bytes, error);
  }
  return file;
}

int OpenBelowRoot(char* path, std::size_t root_bytes, Use use, Refusal& refusal) {
  const bool is_made = use == Use::kCreate || use == Use::kReplace;
  const Missing missing = is_made ? Missing::kMake : Missing::kRefuse;
  const int directory = OpenDirectoryOf(path, root_bytes, missing, refusal);
  if (directory < 0) return -1;
  const int file = OpenFile(directory, std::strrchr(path, '/') + 1, use, refusal);
  Close(directory);
  if (file < 0) refusal.path_bytes = std::strlen(path);
  return file;
}

}  // namespace protocol
