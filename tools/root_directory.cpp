// Properties files below a root directory.
#include "tools/root_directory.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

#include "tools/control.h"
#include "tools/files.h"
#include "tools/user_error.h"

namespace memleak {
namespace {

constexpr mode_t kPropertiesMode = 0644;

UserError NotWritable(const std::string& root, const std::string& reason) {
  return {"root directory not writable: " + root + ": " + reason,
          "choose another with --root DIR, or change its permissions"};
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

BacktraceSettings ParseSettings(std::string_view properties) {
  BacktraceSettings settings;
  std::istringstream lines{std::string(properties)};
  for (std::string line; std::getline(lines, line);) {
    const std::size_t equals = line.find('=');
    if (equals == std::string::npos || equals + 1 == line.size()) continue;
    const std::string_view name = std::string_view(line).substr(0, equals);
    const std::string_view value = std::string_view(line).substr(equals + 1);
    if (name == kTypeProperty) settings.type = value.front();
    if (name == kDepthProperty) {
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
  if (settings.type) updated = WithProperty(updated, kTypeProperty, {*settings.type});
  if (settings.depth) {
    updated = WithProperty(updated, kDepthProperty, std::to_string(*settings.depth));
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
  if (!MakeDirectories(root)) throw NotWritable(root, std::strerror(errno));
  const std::string path = JoinPath(root, kPropertiesFile);
  const std::string fresh = path + "." + std::to_string(getpid());
  const int file = open(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kPropertiesMode);
  if (file < 0) throw NotWritable(root, std::strerror(errno));
  const bool written = WriteAll(file, properties);
  int reason = errno;
  close(file);
  if (written && std::rename(fresh.c_str(), path.c_str()) == 0) return;
  if (written) reason = errno;
  unlink(fresh.c_str());
  throw NotWritable(root, std::strerror(reason));
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
