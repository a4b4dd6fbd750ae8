// SPDX-License-Identifier: Apache-2.0
#include "tools/target/root_directory.h"

#include <elf.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <sstream>

#include "protocol/private_files.h"
#include "protocol/protocol.h"
#include "tools/base/files.h"
#include "tools/base/user_error.h"
#include "tools/target/site.h"

namespace memleak {
namespace {

constexpr const char* kRemedy =
    "choose another with --root DIR, or change its owner or permissions";

UserError NotWritable(const std::string& path, const std::string& reason) {
  return {"root directory not writable: " + path + ": " + reason, kRemedy};
}

// Opens a file below a root directory. Links in a path below /proc/PID/root would lead to the
// controller's own files. So the directories above the root directory, which the process may have
// replaced by links, are resolved as the process resolves them, and the rest follows no link.
class FileBelowRoot {
 public:
  // An empty `name` stands for the root directory itself.
  FileBelowRoot(std::string root, const std::string& name) {
    while (root.size() > 1 && root.back() == '/') root.pop_back();
    shown_ = path_ = name.empty() ? root : JoinPath(root, name);
    root_bytes_ = root.size();
    const std::size_t outside = OutsideBytes(root);
    if (outside == 0) return;
    std::size_t end = root.size();
    do {
      end = root.rfind('/', end - 1);
      // With "." the last part may be a link.
      const std::string above = root.substr(outside, end - outside) + "/.";
      above_ = OpenInRoot(root.substr(0, outside), above, O_PATH | O_DIRECTORY);
    } while (!above_.IsOpen() && errno == ENOENT && end > outside);
    error_ = above_.IsOpen() ? 0 : errno;
    const std::string start = "/proc/self/fd/" + std::to_string(above_.Number());
    path_ = start + shown_.substr(end);
    root_bytes_ = std::min(path_.size(), path_.find('/', start.size() + 1));
    cut_ = static_cast<std::ptrdiff_t>(end) - static_cast<std::ptrdiff_t>(start.size());
  }

  // As protocol::OpenDirectoryOf.
  int OpenDirectory(protocol::Missing missing, protocol::Refusal& refusal) {
    if (error_ != 0) return Unresolved(refusal);
    return protocol::OpenDirectoryOf(path_.data(), root_bytes_, missing, refusal);
  }

  // As protocol::OpenBelowRoot.
  int Open(protocol::Use use, protocol::Refusal& refusal) {
    if (error_ != 0) return Unresolved(refusal);
    return protocol::OpenBelowRoot(path_.data(), root_bytes_, use, refusal);
  }

  // The path that a refusal of these names.
  std::string Shown(const protocol::Refusal& refusal) const {
    if (error_ != 0) return shown_;
    return shown_.substr(
        0, static_cast<std::size_t>(static_cast<std::ptrdiff_t>(refusal.path_bytes) + cut_));
  }

 private:
  int Unresolved(protocol::Refusal& refusal) const {
    refusal = {shown_.size(), error_,
               error_ == ENOSYS ? "processes with other mounts need Linux 5.6" : nullptr};
    return -1;
  }

  std::string shown_;  // the path as given
  std::string path_;
  std::size_t root_bytes_ = 0;
  Descriptor above_;  // a directory above the root directory
  int error_ = 0;
  std::ptrdiff_t cut_ = 0;  // how much longer `shown_` is than `path_`
};

bool WriteAll(int file, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = write(file, text.data(), text.size());
    if (written < 0) return false;
    text.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

}  // namespace

BacktraceSettings DefaultSettings(std::uint16_t machine) {
  // On x86-64, system libraries have no frame pointers.
  return {kDefaultDepth,
          machine == EM_AARCH64 ? protocol::kUnwindFramePointers : protocol::kUnwindTables};
}

BacktraceSettings ParseSettings(std::string_view properties) {
  BacktraceSettings settings;
  std::istringstream lines{std::string(properties)};
  for (std::string line; std::getline(lines, line);) {
    const std::size_t equals = line.find('=');
    if (equals == std::string::npos || equals + 1 == line.size()) continue;
    const std::string_view name = std::string_view(line).substr(0, equals);
    const std::string_view value = std::string_view(line).substr(equals + 1);
    if (name == protocol::kTypeProperty) settings.type = value.front();
    if (name == protocol::kDepthProperty) {
      const bool digits = value.find_first_not_of("0123456789") == std::string_view::npos;
      std::uint32_t depth = 0;
      const auto result = std::from_chars(value.data(), value.data() + value.size(), depth);
      if (digits && result.ec == std::errc()) settings.depth = depth;
    }
  }
  return settings;
}

std::string UpdateProperties(std::string_view properties, const BacktraceSettings& settings) {
  std::string updated(properties);
  if (settings.type) updated = WithProperty(updated, protocol::kTypeProperty, {*settings.type});
  if (settings.depth) {
    updated = WithProperty(updated, protocol::kDepthProperty, std::to_string(*settings.depth));
  }
  return updated;
}

std::string WithProperty(std::string_view properties, const std::string& name,
                         const std::string& value) {
  std::string updated;
  std::istringstream lines{std::string(properties)};
  for (std::string line; std::getline(lines, line);) {
    if (line.substr(0, line.find('=')) != name) updated += line + "\n";
  }
  return updated + name + "=" + value + "\n";
}

void WriteProperties(const std::string& root, std::string_view properties) {
  WriteBelowRoot(root, protocol::kPropertiesFile, properties);
}

void WriteBelowRoot(const std::string& root, const char* name, std::string_view content) {
  FileBelowRoot path(root, name);
  protocol::Refusal refusal;
  const Descriptor directory(path.OpenDirectory(protocol::Missing::kMake, refusal));
  if (!directory.IsOpen()) throw NotWritable(path.Shown(refusal), refusal.Reason());
  const std::string fresh = name + ("." + std::to_string(getpid()));
  // An earlier process with the same id may have left it.
  unlinkat(directory.Number(), fresh.c_str(), 0);
  const Descriptor file(
      protocol::OpenFile(directory.Number(), fresh.c_str(), protocol::Use::kCreate, refusal));
  if (!file.IsOpen()) throw NotWritable(root, refusal.Reason());
  if (WriteAll(file.Number(), content) &&
      renameat(directory.Number(), fresh.c_str(), directory.Number(), name) == 0) {
    return;
  }
  const int reason = errno;
  unlinkat(directory.Number(), fresh.c_str(), 0);
  throw NotWritable(root, std::strerror(reason));
}

std::optional<std::string> ReadProperties(const std::string& root) {
  protocol::Refusal refusal;
  const Descriptor file(
      FileBelowRoot(root, protocol::kPropertiesFile).Open(protocol::Use::kRead, refusal));
  if (!file.IsOpen()) return std::nullopt;
  return ReadAll(file);
}

bool HasRoot(const std::string& root) {
  protocol::Refusal refusal;
  const Descriptor directory(FileBelowRoot(root, protocol::kPropertiesFile)
                                 .OpenDirectory(protocol::Missing::kRefuse, refusal));
  return directory.IsOpen();
}

void RemoveRoot(const std::string& root, const std::vector<const char*>& names) {
  protocol::Refusal refusal;
  const Descriptor inside(FileBelowRoot(root, protocol::kPropertiesFile)
                              .OpenDirectory(protocol::Missing::kRefuse, refusal));
  if (!inside.IsOpen()) return;
  for (const char* name : names) unlinkat(inside.Number(), name, 0);
  const Descriptor above(
      FileBelowRoot(root, "").OpenDirectory(protocol::Missing::kRefuse, refusal));
  if (above.IsOpen()) unlinkat(above.Number(), LastPart(root).c_str(), AT_REMOVEDIR);
}

}  // namespace memleak
