// SPDX-License-Identifier: Apache-2.0
// A profile in the format of pprof.
#include <google/protobuf/io/gzip_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <map>
#include <ostream>
#include <span>
#include <string>
#include <string_view>
#include <tuple>
#include <unordered_map>
#include <utility>
#include <vector>

#include "tools/base/names.h"
#include "tools/export/formats.h"
#include "tools/export/profile.pb.h"

namespace memleak {
namespace {

namespace pb = perftools::profiles;

constexpr std::uint64_t kPage = 0x1000;
constexpr std::uint64_t kFirstMapping = 0x10000000;
// Limits offsets of damaged reports, so ranges do not overflow.
constexpr std::uint64_t kMaxMappingBytes = std::uint64_t{1} << 40U;

std::int64_t Signed(std::uint64_t value) {
  constexpr auto kMax = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
  return static_cast<std::int64_t>(std::min(value, kMax));
}

// The address of a frame within its file.
std::uint64_t FileAddress(const Frame& frame) {
  return std::min(frame.address != 0 ? frame.address : frame.offset, kMaxMappingBytes - 1);
}

/// Builds the message. Adds each table entry once.
class Builder {
 public:
  explicit Builder(const Profile& profile) : profile_(profile) {
    Text("");
    AddMappings();
    AddHead();
    for (const Group& group : profile.groups) AddSample(group);
    MoveProgramFirst();
  }

  const pb::Profile& Message() const { return message_; }

 private:
  std::int64_t Text(std::string_view text) {
    // Readers reject profiles with invalid UTF-8.
    const auto [known, added] =
        texts_.try_emplace(ValidUtf8(text), static_cast<std::int64_t>(texts_.size()));
    if (added) message_.add_string_table(known->first);
    return known->second;
  }

  void AddType(pb::ValueType* type, const char* name, const char* unit) {
    type->set_type(Text(name));
    type->set_unit(Text(unit));
  }

  void AddHead() {
    AddType(message_.add_sample_type(), "inuse_objects", "count");
    AddType(message_.add_sample_type(), "inuse_space", "bytes");
    message_.set_default_sample_type(Text("inuse_space"));
    // Every allocation is recorded, not a sample of them.
    AddType(message_.mutable_period_type(), "space", "bytes");
    message_.set_period(1);
    message_.set_time_nanos(profile_.made * 1'000'000'000);
    message_.add_comment(Text("memleak report " + profile_.path));
    const Sums unlisted = profile_.Unlisted();
    if (unlisted.groups == 0) return;
    message_.add_comment(Text("not listed in the report: " + std::to_string(unlisted.bytes) +
                              " bytes in " + std::to_string(unlisted.groups) + " stacks"));
  }

  pb::Mapping* MappingOf(std::int32_t library) { return message_.mutable_mapping(library); }

  void AddMappings() {
    for (const Library& library : profile_.libraries) {
      pb::Mapping* mapping = message_.add_mapping();
      mapping->set_id(static_cast<std::uint64_t>(message_.mapping_size()));
      mapping->set_filename(Text(library.path));
      mapping->set_build_id(Text(library.build_id));
    }
    std::vector<std::uint64_t> highest(profile_.libraries.size(), 0);
    for (const Frame& frame : profile_.frames) {
      if (frame.library < 0) continue;
      const auto library = static_cast<std::size_t>(frame.library);
      pb::Mapping* mapping = MappingOf(frame.library);
      highest[library] = std::max(highest[library], FileAddress(frame));
      if (!frame.function.empty()) mapping->set_has_functions(true);
      if (!frame.file.empty()) mapping->set_has_filenames(true);
      if (frame.line != 0) mapping->set_has_line_numbers(true);
      if (frame.inlined) mapping->set_has_inline_frames(true);
    }
    std::uint64_t start = kFirstMapping;
    for (std::size_t i = 0; i < highest.size(); ++i) {
      pb::Mapping* mapping = MappingOf(static_cast<std::int32_t>(i));
      mapping->set_memory_start(start);
      start += (highest[i] / kPage + 1) * kPage;
      mapping->set_memory_limit(start);
    }
  }

  // Readers take the first mapping as the program. A report does not name the program. It is
  // guessed: it has no library's name, a "main", and most frames.
  void MoveProgramFirst() {
    using Rank = std::tuple<bool, bool, std::uint64_t>;
    std::vector<Rank> ranks;
    for (const Library& library : profile_.libraries) {
      const std::string& path = library.path;
      const bool is_library = path.find(".so", path.rfind('/')) != std::string::npos;
      ranks.emplace_back(path.starts_with('/') && !is_library, false, 0);
    }
    for (const Frame& frame : profile_.frames) {
      if (frame.library < 0) continue;
      auto& [program, has_main, frames] = ranks[static_cast<std::size_t>(frame.library)];
      has_main = has_main || frame.function == "main" || frame.function == "_start";
      ++frames;
    }
    const auto first = std::ranges::max_element(ranks);
    if (first == ranks.end() || !std::get<0>(*first)) return;
    const auto mappings = message_.mutable_mapping()->pointer_begin();
    std::rotate(mappings, mappings + (first - ranks.begin()),
                mappings + (first - ranks.begin()) + 1);
  }

  std::uint64_t FunctionOf(const Frame& frame) {
    // Readers show an address for frames without a name in a library.
    const std::int64_t name = Text(frame.function.empty() ? "[unknown]" : frame.function);
    const std::int64_t file = Text(frame.file);
    const auto [known, added] = functions_.try_emplace({name, file}, functions_.size() + 1);
    if (added) {
      pb::Function* function = message_.add_function();
      function->set_id(known->second);
      function->set_name(name);
      function->set_system_name(name);
      function->set_filename(file);
    }
    return known->second;
  }

  // `frames` are those of one address, innermost first. The first and the last identify them: only
  // wrappers of allocators may be left out before them.
  std::uint64_t LocationOf(std::span<const std::uint32_t> frames) {
    const std::uint64_t ends = (std::uint64_t{frames.front()} << 32U) | frames.back();
    const auto [known, added] = locations_.try_emplace(ends, locations_.size() + 1);
    if (!added) return known->second;
    pb::Location* location = message_.add_location();
    location->set_id(known->second);
    const Frame& outermost = profile_.frames[frames.back()];
    if (outermost.library >= 0) {
      const pb::Mapping& mapping = *MappingOf(outermost.library);
      location->set_mapping_id(mapping.id());
      location->set_address(mapping.memory_start() + FileAddress(outermost));
    } else {
      location->set_address(outermost.offset);
    }
    for (const std::uint32_t index : frames) {
      const Frame& frame = profile_.frames[index];
      if (frame.function.empty() && frame.library >= 0) continue;
      const std::uint64_t function = FunctionOf(frame);
      pb::Line* line = location->add_line();
      line->set_function_id(function);
      line->set_line(frame.line);
    }
    return known->second;
  }

  void AddSample(const Group& group) {
    pb::Sample* sample = message_.add_sample();
    const std::span<const std::uint32_t> stack(group.stack);
    for (std::size_t begin = 0, end = 0; begin < stack.size(); begin = end) {
      end = begin + 1;
      while (end < stack.size() && profile_.frames[stack[end - 1]].inlined) ++end;
      sample->add_location_id(LocationOf(stack.subspan(begin, end - begin)));
    }
    sample->add_value(Signed(group.count));
    sample->add_value(Signed(group.total));
    pb::Label* size = sample->add_label();
    size->set_key(Text("bytes"));
    size->set_num(Signed(group.size));
    size->set_num_unit(Text("bytes"));
    if (group.kind != GroupKind::kJava) return;
    pb::Label* kind = sample->add_label();
    kind->set_key(Text("kind"));
    kind->set_str(Text("java-native"));
  }

  const Profile& profile_;
  pb::Profile message_;
  std::unordered_map<std::string, std::int64_t> texts_;
  std::map<std::pair<std::int64_t, std::int64_t>, std::uint64_t> functions_;  // name, file
  std::unordered_map<std::uint64_t, std::uint64_t> locations_;  // by first and last frame
};

}  // namespace

void WritePprof(const Profile& profile, std::ostream& out) {
  const Builder builder(profile);
  google::protobuf::io::OstreamOutputStream plain(&out);
  google::protobuf::io::GzipOutputStream packed(&plain);
  if (!builder.Message().SerializeToZeroCopyStream(&packed) || !packed.Close()) {
    out.setstate(std::ios::failbit);
  }
}

}  // namespace memleak
