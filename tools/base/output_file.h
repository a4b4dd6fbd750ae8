// A file that a command writes at once and as a whole: what stood there before stays until the new
// contents are complete, and what the command reads is never overwritten. Called by the commands
// with -o; single-threaded.
#pragma once

#include <fstream>
#include <string>
#include <vector>

namespace memleak {

/// Throws UserError when `output` is the same file as one of `inputs`, by whatever names. Empty
/// names stand for none.
void RefuseOverwriting(const std::string& output, const std::vector<std::string>& inputs);

/// Opened on construction, in place on Commit; without that nothing has changed in the end. What is
/// no plain file, such as a pipe, is written straight away. Both throw UserError when the file
/// cannot be written.
class OutputFile {
 public:
  explicit OutputFile(const std::string& path);
  ~OutputFile();
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  std::ostream& Stream() { return stream_; }
  void Commit();

 private:
  [[noreturn]] void Fail(const std::string& reason) const;

  std::string given_;
  std::string target_;  // what `given_` leads to
  std::string beside_;  // what is written; the target itself where that is no plain file
  std::ofstream stream_;
};

}  // namespace memleak
