// SPDX-License-Identifier: Apache-2.0
#include "tools/export/html.h"

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/gzip_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>

#include <cstdint>

#include "tools/base/output_file.h"
#include "tools/base/user_error.h"

namespace memleak {
namespace {

std::string Compressed(const std::string& text) {
  std::string packed;
  google::protobuf::io::StringOutputStream plain(&packed);
  google::protobuf::io::GzipOutputStream stream(&plain);
  google::protobuf::io::CodedOutputStream(&stream).WriteString(text);
  stream.Close();
  return packed;
}

std::string Base64(std::string_view bytes) {
  constexpr std::string_view kDigits =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text;
  text.reserve(bytes.size() / 3 * 4 + 4);
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    const std::string_view three = bytes.substr(i, 3);
    std::uint32_t bits = 0;
    for (std::size_t j = 0; j < 3; ++j) {
      bits = bits << 8U | (j < three.size() ? static_cast<unsigned char>(three[j]) : 0U);
    }
    for (std::size_t j = 0; j < 4; ++j) {
      text.push_back(j <= three.size() ? kDigits[bits >> (18 - 6 * j) & 63U] : '=');
    }
  }
  return text;
}

}  // namespace

std::size_t WritePage(const PageContent& content, const std::string& path) {
  constexpr std::string_view kDataMark = "@DATA@";
  const std::string_view shell = PageShell();
  const std::size_t mark = shell.find(kDataMark);
  if (mark == std::string_view::npos) {
    throw UserError("this build of memleak has no page",
                    "write it with a memleak built for this machine, with npm and no sanitizer");
  }
  const std::string data = Base64(Compressed(PageData(content)));
  OutputFile file(path);
  file.Stream() << shell.substr(0, mark) << data << shell.substr(mark + kDataMark.size());
  file.Commit();
  return shell.size() - kDataMark.size() + data.size();
}

std::size_t WriteDifferencePage(const Profile& before, const Profile& after,
                                const std::string& trend, const std::string& path) {
  const Difference difference = Compare(before, after);
  return WritePage({.report = after,
                    .groups = difference.merged,
                    .base = &before,
                    .changes = &difference.changes,
                    .trend = trend},
                   path);
}

}  // namespace memleak
