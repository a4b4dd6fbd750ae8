// SPDX-License-Identifier: Apache-2.0
// System properties on Linux: "name=value" lines of <root>/properties.
//
// The control signal's handler reads properties, so the reader allocates nothing: it processes the
// file in small pieces and does not store whole lines.
#include <fcntl.h>
#include <sys/system_properties.h>

#include <cerrno>
#include <cstddef>

#include "platform/linux/environment.h"
#include "platform/linux/root.h"
#include "platform/raw_calls.h"
#include "protocol/protocol.h"

namespace {

constexpr std::size_t kValueLimit = PROP_VALUE_MAX - 1;

/// Processes the bytes of the file in order. Stores the value of the last line with the name.
class PropertyScan {
 public:
  /// `value` has PROP_VALUE_MAX bytes and is NUL-terminated from now on.
  PropertyScan(const char* name, char* value) : name_(name), value_(value) { value_[0] = '\0'; }

  void Take(char c) {
    if (c == '\n') {
      EndLine();
    } else if (state_ == State::kName) {
      TakeName(c);
    } else if (state_ == State::kValue) {
      if (length_ < kValueLimit) line_[length_] = c;
      ++length_;
    }
  }

  /// Ends the current line, at a newline or at the end of the file.
  void EndLine() {
    if (state_ == State::kValue) Keep();
    state_ = State::kName;
    matched_ = 0;
    length_ = 0;
  }

  /// The length of the stored value.
  int length() const { return kept_; }

 private:
  enum class State { kName, kValue, kOtherLine };

  void TakeName(char c) {
    if (name_[matched_] == '\0') {
      state_ = c == '=' ? State::kValue : State::kOtherLine;
    } else if (c == name_[matched_]) {
      ++matched_;
    } else {
      state_ = State::kOtherLine;
    }
  }

  void Keep() {
    // Files from other systems may end their lines with CR LF.
    if (length_ > 0 && length_ <= kValueLimit && line_[length_ - 1] == '\r') --length_;
    const std::size_t count = length_ < kValueLimit ? length_ : kValueLimit;
    std::size_t i = 0;
    for (; i < count && line_[i] != '\0'; ++i) value_[i] = line_[i];
    value_[i] = '\0';
    kept_ = static_cast<int>(i);
  }

  const char* const name_;
  char* const value_;
  State state_ = State::kName;
  std::size_t matched_ = 0;  // bytes of the name that the line has matched so far
  std::size_t length_ = 0;   // length of the line's value, also beyond the limit
  int kept_ = 0;
  char line_[kValueLimit];
};

/// Opens the property file of this process, or the shared one if the root directory has none.
/// Returns -1 if neither can be opened.
int OpenProperties() {
  char path[platform::kPathBytes];
  protocol::Refusal refusal;
  const int file =
      platform::OpenRooted(protocol::kPropertiesPath, protocol::Use::kRead, path, refusal);
  const char* shared = platform::CapturedValue(platform::Variable::kProperties);
  if (file >= 0 || shared == nullptr) return file;
  return protocol::OpenFile(AT_FDCWD, shared, protocol::Use::kRead, refusal);
}

void ScanFile(int file, PropertyScan& scan) {
  char piece[512];
  while (true) {
    const ssize_t count = platform::RawRead(file, piece, sizeof(piece));
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) break;
    for (ssize_t i = 0; i < count; ++i) scan.Take(piece[i]);
  }
  scan.EndLine();
}

}  // namespace

extern "C" int __system_property_get(const char* name, char* value) {
  const int saved_errno = errno;
  PropertyScan scan(name, value);
  const int file = name[0] != '\0' ? OpenProperties() : -1;
  if (file >= 0) {
    ScanFile(file, scan);
    platform::RawClose(file);
  }
  errno = saved_errno;
  return scan.length();
}
