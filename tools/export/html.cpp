// SPDX-License-Identifier: Apache-2.0
#include "tools/export/html.h"

#include <ostream>
#include <streambuf>

#include "tools/base/output_file.h"
#include "tools/base/user_error.h"

namespace memleak {
namespace {

/// Passes text on, with "<" escaped. Names may contain markup. Without "<" they cannot end the
/// script element that holds the data. In JSON "<" occurs in strings only.
class MarkupFilter : public std::streambuf {
 public:
  explicit MarkupFilter(std::ostream& out) : out_(out) {}

  std::size_t Written() const { return written_; }

 private:
  std::streamsize xsputn(const char* text, std::streamsize size) override {
    std::string_view rest(text, static_cast<std::size_t>(size));
    for (std::size_t mark; (mark = rest.find('<')) != std::string_view::npos;) {
      Write(rest.substr(0, mark));
      Write("\\u003c");
      rest.remove_prefix(mark + 1);
    }
    Write(rest);
    return out_ ? size : 0;
  }

  int_type overflow(int_type c) override {
    const char one = traits_type::to_char_type(c);
    return xsputn(&one, 1) == 1 ? c : traits_type::eof();
  }

  void Write(std::string_view text) {
    out_ << text;
    written_ += text.size();
  }

  std::ostream& out_;
  std::size_t written_ = 0;
};

}  // namespace

std::size_t WritePage(const std::function<void(std::ostream&)>& write, const std::string& path) {
  constexpr std::string_view kDataMark = "@DATA@";
  const std::string_view shell = PageShell();
  const std::size_t mark = shell.find(kDataMark);
  if (mark == std::string_view::npos) {
    throw UserError("this build of memleak has no page",
                    "write it with a memleak built for this machine, with npm and no sanitizer");
  }
  OutputFile file(path);
  file.Stream() << shell.substr(0, mark);
  MarkupFilter filter(file.Stream());
  std::ostream data(&filter);
  write(data);
  file.Stream() << shell.substr(mark + kDataMark.size());
  file.Commit();
  return shell.size() - kDataMark.size() + filter.Written();
}

}  // namespace memleak
