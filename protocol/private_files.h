// SPDX-License-Identifier: Apache-2.0
// Files of a watched process, opened so that no other user can lead the process astray.
//
// A root directory or a log may lie where others write, such as in /tmp: another user may have put
// a directory, a link or a FIFO in its place. So the root directory and all below it must belong to
// the caller, links are not followed, and opening a file never waits. The directories above the
// root are used as they are: they are the choice of the user who named the root.
//
// Used by the tracker on Linux, the loader and the controller, which all open the same files.
// Nothing here allocates, takes a lock or is a cancellation point: any thread, and signal handlers.
#pragma once

#include <cstddef>

namespace protocol {

/// Why a place is not used.
struct Refusal {
  /// The place is the path's first `path_bytes` bytes.
  std::size_t path_bytes = 0;
  int error = 0;              ///< an errno value
  const char* why = nullptr;  ///< a text that says more than the errno value; may be null

  /// `why` or the text of `error`: "it belongs to another user". Lasts forever. Not for signal
  /// handlers.
  const char* Reason() const;
};

enum class Missing { kMake, kRefuse };

/// Opens the directory that holds the file `path`, for use with the *at calls. The first
/// `root_bytes` bytes of `path` name the root directory. From it on, each directory must belong to
/// the caller's effective user or to root, be no link, and be writable for its owner alone.
/// Directories that are missing are made with mode 0700 if `missing` says so.
///
/// `path` is cut and mended on the way, and is as before on return. Returns a descriptor (O_PATH)
/// that the caller closes, or -1, errno and the directory concerned in `refusal`.
int OpenDirectoryOf(char* path, std::size_t root_bytes, Missing missing, Refusal& refusal);

enum class Use {
  kRead,     ///< an existing regular file of the caller or of root; links are followed
  kCreate,   ///< a file that is not there yet
  kReplace,  ///< an own regular file, which is emptied, or a new one
  kAppend,   ///< an own regular file or FIFO, a device, or a new file
  kDevice,   ///< an existing file, for writing
};

/// Opens `name` in `directory` (AT_FDCWD: `name` is a path). New files get mode 0600. Files that
/// are written are no links, and regular ones have one name, so that no other file is changed.
/// FIFOs and devices are opened without waiting, and without becoming the controlling terminal.
///
/// Returns a descriptor that the caller closes, or -1, errno, and `refusal`, whose path is `name`.
int OpenFile(int directory, const char* name, Use use, Refusal& refusal);

/// Both in one: opens the file `path` below the root directory. Directories that are missing are
/// made where `use` makes a file. The refusal's path is `path`.
int OpenBelowRoot(char* path, std::size_t root_bytes, Use use, Refusal& refusal);

}  // namespace protocol
