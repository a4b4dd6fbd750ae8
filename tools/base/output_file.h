// SPDX-License-Identifier: Apache-2.0
// Output files that are replaced atomically: the old contents stay until the new ones are complete.
// Single-threaded.
#pragma once

#include <fstream>
#include <string>
#include <vector>

namespace memleak {

/// Throws UserError if `output` is the same file as one of `inputs`, through links too. Empty names
/// are ignored.
void RefuseOverwriting(const std::string& output, const std::vector<std::string>& inputs);

/// The constructor opens a temporary file in the directory of the target, and Commit renames it.
/// Without Commit, the target stays unchanged. A target that is not a regular file, such as a pipe,
/// is written directly. Both throw UserError if the file cannot be written.
class OutputFile {
 public:
  explicit OutputFile(const std::string& path);
  ~OutputFile();
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  std::ostream& Stream() { return stream_; }
  void Commit();

 private:
  [[noreturn]] void Fail() const;

  std::string given_;
  std::string target_;     // what `given_` leads to
  std::string temporary_;  // the temporary file, or target_ if that is not a regular file
  std::ofstream stream_;
};

}  // namespace memleak
