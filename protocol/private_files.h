// SPDX-License-Identifier: Apache-2.0
// Opens files of a watched process so that no other user can redirect or block the process.
//
// A root directory or a log may be in a directory that others can write to, such as /tmp: another
// user may have created a directory, a link or a FIFO of that name. So the root directory and
// everything below it must belong to the caller, links are not followed, and opening a file never
// waits. The directories above the root are not checked: the user who named the root chose them.
//
// Used by the tracker on Linux, the loader and the controller, which all open the same files.
// No function allocates, takes a lock or is a cancellation point. Any thread; safe in signal
// handlers.
#pragma once

#include <cstddef>

namespace protocol {

/// Why a path is refused.
struct Refusal {
  /// The first `path_bytes` bytes of the path name the file or directory concerned.
  std::size_t path_bytes = 0;
  int error = 0;              ///< an errno value
  const char* why = nullptr;  ///< a more exact reason than the errno value; may be null

  /// Returns `why`, or the text of `error` if that is null: "it belongs to another user". The text
  /// stays valid. Not for signal handlers.
  const char* Reason() const;
};

enum class Missing { kMake, kRefuse };

/// Opens the directory that contains the file `path`, for use with the *at calls. The first
/// `root_bytes` bytes of `path` name the root directory. The root directory and all directories
/// below it must belong to the caller's effective user or to root, must not be links, and must be
/// writable only for their owner. Creates missing directories with mode 0700 if `missing` is kMake.
///
/// Changes `path` during the call and restores it. Returns a descriptor (O_PATH) that the caller
/// closes; on failure -1, with errno, and with the directory concerned in `refusal`.
int OpenDirectoryOf(char* path, std::size_t root_bytes, Missing missing, Refusal& refusal);

enum class Use {
  kRead,     ///< an existing regular file of the caller or of root; links are followed
  kCreate,   ///< a file that does not exist yet, also for reading
  kReplace,  ///< a regular file of the caller, which is truncated, or a new one
  kAppend,   ///< a regular file or FIFO of the caller, a device, or a new file
  kDevice,   ///< an existing file, for writing
};

/// Opens `name` in `directory` (AT_FDCWD: `name` is a path). New files get mode 0600. A file that
/// is opened for writing must not be a link, and a regular one must have only one name, so that no
/// other file is changed. FIFOs and devices are opened without waiting. A device never becomes the
/// controlling terminal.
///
/// Returns a descriptor that the caller closes; on failure -1, with errno and `refusal`, whose path
/// is `name`.
int OpenFile(int directory, const char* name, Use use, Refusal& refusal);

/// Opens the file `path` below the root directory: OpenDirectoryOf, then OpenFile. Creates missing
/// directories if `use` creates a file. The refusal's path is `path`.
int OpenBelowRoot(char* path, std::size_t root_bytes, Use use, Refusal& refusal);

}  // namespace protocol
