// A directory that lasts as long as a test, and the environment that points the platform at it.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "platform/linux/environment.h"

class TemporaryDirectory {
 public:
  TemporaryDirectory() {
    std::string pattern = testing::TempDir() + "/platform_XXXXXX";
    path_ = mkdtemp(pattern.data());
  }
  ~TemporaryDirectory() { std::filesystem::remove_all(path_); }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  std::string Path(const std::string& below = "") const { return path_ + below; }

 private:
  std::string path_;
};

/// Sets a variable (unsets it when `value` is null) and lets the platform see it.
inline void SetVariable(const char* name, const char* value) {
  if (value != nullptr) {
    setenv(name, value, 1);
  } else {
    unsetenv(name);
  }
  platform::CaptureEnvironment();
}

inline std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

inline void WriteFile(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}
