// SPDX-License-Identifier: Apache-2.0
// Properties files.
#include "tools/target/root_directory.h"

#include <elf.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <fstream>
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

/// Owns a file descriptor.
class Descriptor {
 public:
  explicit Descriptor(int number) : number_(number) {}
  ~Descriptor() {
    if (number_ >= 0) close(number_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int Number() const { return number_; }

 private:
  int number_;
};

UserError NotWritable(const std::string& path, const std::string& reason) {
  return {"root directory not writable: " + path + ": " + reason, kRemedy};
}

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
  return {DefaultDepth(),
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
  std::string path = JoinPath(root, name);
  protocol::Refusal refusal;
  const Descriptor directory(
      protocol::OpenDirectoryOf(path.data(), root.size(), protocol::Missing::kMake, refusal));
  if (directory.Number() < 0) {
    throw NotWritable(path.substr(0, refusal.path_bytes), refusal.Reason());
  }
  const std::string fresh = name + ("." + std::to_string(getpid()));
  // An earlier process with the same id may have left it.
  unlinkat(directory.Number(), fresh.c_str(), 0);
  const Descriptor file(
      protocol::OpenFile(directory.Number(), fresh.c_str(), protocol::Use::kCreate, refusal));
  if (file.Number() < 0) throw NotWritable(root, refusal.Reason());
  if (WriteAll(file.Number(), content) &&
      renameat(directory.Number(), fresh.c_str(), directory.Number(), name) == 0) {
    return;
  }
  const int reason = errno;
  unlinkat(directory.Number(), fresh.c_str(), 0);
  throw NotWritable(root, std::strerror(reason));
}

std::optional<std::string> ReadProperties(const std::string& root) {
  std::string path = JoinPath(root, protocol::kPropertiesFile);
  protocol::Refusal refusal;
  const Descriptor file(
      protocol::OpenBelowRoot(path.data(), root.size(), protocol::Use::kRead, refusal));
  if (file.Number() < 0) return std::nullopt;
  return ReadAll(file.Number());
}

std::optional<std::string> ReadTextFile(const std::string& path) {
  if (!IsPlainFile(path)) return std::nullopt;
  std::ifstream file(path, std::ios::binary);
  if (!file) return std::nullopt;
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

}  // namespace memleak
