// The mappings of this process for the unwinder.
//
// Parsed once at start-up and again when an address is not found, on any thread; see Maps.h for
// what the allocation path touches.
#include <fcntl.h>
#include <sys/mman.h>
#include <unwindstack/Maps.h>

#include <algorithm>
#include <cerrno>
#include <optional>

#include "platform/standin/raw_calls.h"
#include "platform/standin/unwind_gate.h"
#include "platform/standin/unwinder_parts.h"

namespace unwindstack {
namespace {

constexpr std::uint64_t kPageBytes = 4096;

std::optional<std::string> ReadFile(const char* path) {
  const int file = platform::RawOpen(path, O_RDONLY | O_CLOEXEC);
  if (file < 0) return std::nullopt;
  std::string text;
  while (true) {
    constexpr std::size_t kPiece = 16384;
    const std::size_t length = text.size();
    text.resize(length + kPiece);
    const ssize_t count = platform::RawRead(file, text.data() + length, kPiece);
    text.resize(length + static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) break;
  }
  platform::RawClose(file);
  return text;
}

/// Takes a hexadecimal number and the `end` character behind it off the front of `text`.
bool TakeHex(std::string_view& text, char end, std::uint64_t& value) {
  value = 0;
  std::size_t at = 0;
  for (; at < text.size() && text[at] != end; ++at) {
    const char c = text[at];
    std::uint64_t digit = 0;
    if (c >= '0' && c <= '9') {
      digit = static_cast<std::uint64_t>(c - '0');
    } else if (c >= 'a' && c <= 'f') {
      digit = static_cast<std::uint64_t>(c - 'a') + 10;
    } else {
      return false;
    }
    value = value << 4 | digit;
  }
  if (at == 0 || at >= text.size()) return false;
  text.remove_prefix(at + 1);
  return true;
}

/// Drops a field and the blanks behind it.
void SkipField(std::string_view& text) {
  text.remove_prefix(std::min(text.find(' '), text.size()));
  text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
}

/// "start-end rwxp offset device inode   name". Null for a line in any other form.
std::shared_ptr<MapInfo> ParseLine(std::string_view line) {
  std::uint64_t start = 0;
  std::uint64_t end = 0;
  std::uint64_t offset = 0;
  if (!TakeHex(line, '-', start) || !TakeHex(line, ' ', end) || line.size() < 5) return nullptr;
  std::uint64_t flags = PROT_NONE;
  if (line[0] == 'r') flags |= PROT_READ;
  if (line[1] == 'w') flags |= PROT_WRITE;
  if (line[2] == 'x') flags |= PROT_EXEC;
  line.remove_prefix(5);
  if (!TakeHex(line, ' ', offset)) return nullptr;
  SkipField(line);
  SkipField(line);
  return std::make_shared<MapInfo>(start, end, offset, flags,
                                   line.empty() ? SharedString() : SharedString(std::string(line)));
}

bool SameMapping(const MapInfo& a, const MapInfo& b) {
  return a.start() == b.start() && a.end() == b.end() && a.offset() == b.offset() &&
         a.flags() == b.flags() && std::string_view(a.name().c_str()) == b.name().c_str();
}

std::string_view Basename(std::string_view path) {
  return path.substr(path.rfind('/') + 1);  // npos + 1 is 0: all of it
}

template <typename Range>
auto FirstEndingAbove(const Range& range, std::uint64_t pc) {
  return std::upper_bound(
      range.begin(), range.end(), pc,
      [](std::uint64_t value, const std::shared_ptr<MapInfo>& map) { return value < map->end(); });
}

}  // namespace

LocalUpdatableMaps::~LocalUpdatableMaps() = default;

bool LocalUpdatableMaps::Parse() {
  platform::PrepareUnwinder();
  platform::InstallUnwindGate();
  return Reparse();
}

bool LocalUpdatableMaps::Reparse() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return ReparseLocked();
}

bool LocalUpdatableMaps::ReparseLocked() {
  const std::optional<std::string> text = ReadFile(maps_path_.c_str());
  if (!text) return false;
  MapList maps;
  std::string_view rest = *text;
  while (!rest.empty()) {
    const std::string_view line = rest.substr(0, rest.find('\n'));
    rest.remove_prefix(std::min(line.size() + 1, rest.size()));
    const std::shared_ptr<MapInfo> map = ParseLine(line);
    if (map == nullptr) continue;
    const auto old = FirstEndingAbove(maps_, map->start());
    maps.push_back(old != maps_.end() && SameMapping(**old, *map) ? *old : map);
  }
  // A file that reads as empty (a process that is being torn down) has told nothing.
  if (maps.empty()) return false;
  maps_ = std::move(maps);
  PublishCode();
  return true;
}

void LocalUpdatableMaps::PublishCode() {
  auto index = std::make_unique<CodeIndex>();
  for (const std::shared_ptr<MapInfo>& map : maps_) {
    if ((map->flags() & PROT_EXEC) != 0) index->owners.push_back(map);
  }
  if (!code_indexes_.empty() && code_indexes_.back()->owners == index->owners) return;
  index->ranges.reserve(index->owners.size());
  for (const std::shared_ptr<MapInfo>& map : index->owners) {
    index->ranges.push_back({map->start(), map->end(), Basename(map->name().c_str())});
  }
  code_indexes_.push_back(std::move(index));
  code_.store(code_indexes_.back().get(), std::memory_order_release);
}

std::shared_ptr<MapInfo> LocalUpdatableMaps::Find(std::uint64_t pc) {
  const std::lock_guard<std::mutex> lock(mutex_);
  auto found = FirstEndingAbove(maps_, pc);
  if (found == maps_.end() || pc < (*found)->start()) {
    if (!ReparseLocked()) return nullptr;
    found = FirstEndingAbove(maps_, pc);
    if (found == maps_.end() || pc < (*found)->start()) return nullptr;
  }
  return *found;
}

const LocalUpdatableMaps::CodeRange* LocalUpdatableMaps::CodeIndex::Find(std::uint64_t pc) const {
  const auto above = std::upper_bound(
      ranges.begin(), ranges.end(), pc,
      [](std::uint64_t value, const CodeRange& range) { return value < range.end; });
  return above != ranges.end() && above->Contains(pc) ? &*above : nullptr;
}

const LocalUpdatableMaps::CodeRange* LocalUpdatableMaps::FindCode(std::uint64_t pc) {
  const CodeIndex* index = code_.load(std::memory_order_acquire);
  const CodeRange* range = index != nullptr ? index->Find(pc) : nullptr;
  if (range != nullptr) return range;
  const std::uint64_t page = pc / kPageBytes;
  if (missed_page_.load(std::memory_order_relaxed) == page) return nullptr;
  // Never waits: in a forked child the lock's owner may not exist.
  const std::unique_lock<std::mutex> lock(mutex_, std::try_to_lock);
  if (!lock.owns_lock() || !ReparseLocked()) return nullptr;
  range = code_.load(std::memory_order_relaxed)->Find(pc);
  if (range == nullptr) missed_page_.store(page, std::memory_order_relaxed);
  return range;
}

}  // namespace unwindstack
