// SPDX-License-Identifier: Apache-2.0
#include "tools/base/output_file.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "tools/base/user_error.h"

namespace memleak {

namespace fs = std::filesystem;

void RefuseOverwriting(const std::string& output, const std::vector<std::string>& inputs) {
  for (const std::string& input : inputs) {
    std::error_code ignored;  // a missing file is not the same as any
    if (output.empty() || input.empty() || !fs::equivalent(output, input, ignored)) continue;
    throw UserError("output would overwrite the input: " + output, "choose another file with -o");
  }
}

OutputFile::OutputFile(const std::string& path) : given_(path), target_(path), temporary_(path) {
  std::error_code error;
  // Replace the target of a link, not the link.
  if (fs::is_symlink(path, error)) target_ = fs::weakly_canonical(path, error).string();
  const fs::file_status status = fs::status(target_, error);
  if (fs::is_regular_file(status) || !fs::exists(status)) {
    temporary_ = target_ + ".part-" + std::to_string(getpid());
  }
  errno = 0;
  stream_.open(temporary_, std::ios::binary | std::ios::trunc);
  if (!stream_) Fail();
  if (fs::is_regular_file(status)) fs::permissions(temporary_, status.permissions(), error);
  errno = 0;
}

OutputFile::~OutputFile() {
  if (temporary_ != target_) unlink(temporary_.c_str());
}

void OutputFile::Commit() {
  stream_.close();
  if (!stream_) Fail();
  if (temporary_ == target_) return;
  if (std::rename(temporary_.c_str(), target_.c_str()) != 0) Fail();
  temporary_ = target_;
}

void OutputFile::Fail() const {
  const std::string reason = errno == 0 ? "writing failed" : std::strerror(errno);
  throw UserError("cannot write " + given_ + ": " + reason,
                  "give -o a file in a directory that you may write to");
}

}  // namespace memleak
