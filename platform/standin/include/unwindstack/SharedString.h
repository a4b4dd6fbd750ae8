// Stand-in: an immutable string shared by its copies.
//
// Names of mappings and functions: made by the map reader and the unwinder, read on any thread.
#pragma once

#include <memory>
#include <string>
#include <utility>

namespace unwindstack {

class SharedString {
 public:
  SharedString() = default;
  SharedString(std::string text)  // NOLINT(google-explicit-constructor): as in the platform's
      : text_(std::make_shared<const std::string>(std::move(text))) {}
  SharedString(const char* text) : SharedString(std::string(text)) {}

  bool is_null() const { return text_ == nullptr; }
  bool empty() const { return is_null() || text_->empty(); }
  const char* c_str() const { return is_null() ? "" : text_->c_str(); }
  operator const std::string&() const {
    static const std::string none;
    return is_null() ? none : *text_;
  }

 private:
  std::shared_ptr<const std::string> text_;
};

}  // namespace unwindstack
