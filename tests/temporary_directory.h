// SPDX-License-Identifier: Apache-2.0
// A directory that exists as long as a test, and files in it.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

class TemporaryDirectory {
 public:
  TemporaryDirectory() {
    std::string pattern = (std::filesystem::temp_directory_path() / "memleak_test.XXXXXX").string();
    path_ = mkdtemp(pattern.data());
  }
  ~TemporaryDirectory() {
    // In a child: a sanitizer confuses these descriptors with those of an ended thread.
    if (std::system(("rm -rf '" + path_ + "'").c_str()) != 0) std::abort();
  }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  /// The path of `name` in the directory.
  std::string Path(const std::string& name) const { return path_ + "/" + name; }
  /// Writes `text` to `name` and returns its path.
  std::string Write(const std::string& name, const std::string& text) const {
    std::ofstream(Path(name), std::ios::binary) << text;
    return Path(name);
  }
  /// The contents of `name`; empty if the file does not exist.
  std::string Read(const std::string& name) const {
    std::ifstream file(Path(name), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

 private:
  std::string path_;
};
