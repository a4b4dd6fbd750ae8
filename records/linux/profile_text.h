// SPDX-License-Identifier: Apache-2.0
// The text of a profile and the numbers of its frames. Used by profile_writer.cpp on the dump
// thread. All memory comes from mmap.
#pragma once

#include <sys/mman.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string_view>
#include <utility>

#include "platform/raw_calls.h"
#include "records/linux/profile_objects.h"

namespace profile {

inline constexpr char kHexDigits[] = "0123456789abcdef";

/// A text file that is written in pieces.
class Text {
 public:
  /// `buffer` has kBytes bytes.
  Text(int file, char* buffer) : file_(file), buffer_(buffer) {}
  static constexpr std::size_t kBytes = std::size_t{256} << 10;

  Text& operator<<(std::string_view text) {
    for (const char c : text) Put(c);
    return *this;
  }
  Text& operator<<(char c) {
    Put(c);
    return *this;
  }
  Text& operator<<(std::uint64_t number) { return Number(number, 10); }
  Text& operator<<(std::int64_t number) {
    if (number < 0) Put('-');
    return Number(
        number < 0 ? 0 - static_cast<std::uint64_t>(number) : static_cast<std::uint64_t>(number),
        10);
  }
  Text& Hexadecimal(std::uint64_t number) { return Number(number, 16); }
  /// One word of a line: control characters, blanks and backslashes are written as \xHH.
  Text& Word(std::string_view text) {
    for (const char c : text) {
      const auto byte = static_cast<unsigned char>(c);
      if (byte > ' ' && byte != '\\' && byte != 0x7F) {
        Put(c);
      } else {
        *this << "\\x" << kHexDigits[byte >> 4] << kHexDigits[byte & 15];
      }
    }
    return *this;
  }

  /// Writes the rest. Returns 0, or the errno value of the first write that failed.
  int Finish() {
    Flush();
    return error_;
  }
  bool failed() const { return error_ != 0; }
  /// Writes nothing more; Finish returns `error`.
  void Fail(int error) { error_ = error; }

 private:
  void Put(char c) {
    if (used_ == kBytes) Flush();
    buffer_[used_++] = c;
  }
  Text& Number(std::uint64_t number, unsigned base) {
    char digits[20];
    char* at = std::end(digits);
    do {
      *--at = kHexDigits[number % base];
      number /= base;
    } while (number != 0);
    return *this << std::string_view(at, static_cast<std::size_t>(std::end(digits) - at));
  }
  void Flush() {
    for (std::size_t done = 0; error_ == 0 && done < used_;) {
      const ssize_t count = platform::RawWrite(file_, buffer_ + done, used_ - done);
      if (count < 0 && errno != EINTR) error_ = errno;
      if (count == 0) error_ = ENOSPC;
      if (count > 0) done += static_cast<std::size_t>(count);
    }
    used_ = 0;
  }

  const int file_;
  char* const buffer_;
  std::size_t used_ = 0;
  int error_ = 0;
};

/// The numbers of the frames that were written: a hash table by pc and era. An era is a range of
/// code versions between which no object was closed.
struct FrameTable {
  struct Slot {
    std::uint64_t pc;
    std::uint32_t era;
    std::uint32_t number;  ///< counted from 1; 0 in a free slot
  };

  Slot* slots = nullptr;
  std::size_t mask = 0;
  std::uint32_t used = 0;
  /// The latest result of EraOf. Most stacks have the same version as the stack before.
  std::uint32_t last_version = 0;
  std::uint32_t last_era = UINT32_MAX;
  /// Number of objects that the head lists.
  std::size_t objects = ObjectCount();

  FrameTable() = default;
  FrameTable(const FrameTable&) = delete;
  FrameTable& operator=(const FrameTable&) = delete;
  ~FrameTable() {
    if (slots != nullptr) munmap(slots, (mask + 1) * sizeof(Slot));
  }

  /// Returns the slot of the frame, or the free slot for it.
  Slot& Find(std::uint64_t pc, std::uint32_t era) const {
    std::size_t at = static_cast<std::size_t>((pc + era) * 0x9E3779B97F4A7C15U >> 20) & mask;
    while (slots[at].number != 0 && (slots[at].pc != pc || slots[at].era != era)) {
      at = (at + 1) & mask;
    }
    return slots[at];
  }
  /// Returns the lowest `until` above `version`; 0 if no object was closed since. It identifies
  /// the era.
  std::uint32_t EraOf(std::uint32_t version) {
    if (last_era != UINT32_MAX && version == last_version) return last_era;
    last_version = version;
    last_era = 0;
    for (std::size_t i = 0; i < objects; ++i) {
      const std::uint32_t until = Objects()[i].until.load(std::memory_order_relaxed);
      if (until > version && (last_era == 0 || until < last_era)) last_era = until;
    }
    return last_era;
  }
  /// Returns the number of the object, counted from 1, that contained `pc` at `version`; 0 for
  /// none.
  std::size_t ObjectAt(std::uint64_t pc, std::uint32_t version) const {
    std::size_t found = 0;
    std::uint32_t lowest = 0;
    for (std::size_t i = 0; i < objects; ++i) {
      const Object& object = Objects()[i];
      const std::uint32_t until = object.until.load(std::memory_order_relaxed);
      if (!object.Contains(pc) || (until != 0 && until <= version)) continue;
      // 0 becomes the highest number.
      if (found != 0 && until - 1 >= lowest) continue;
      found = i + 1;
      lowest = until - 1;
    }
    return found;
  }
  /// Makes room for one more frame. Returns false if there is no memory.
  bool Grow() {
    if (slots != nullptr && used < mask / 2) return true;
    constexpr std::size_t kFirstSlots = std::size_t{1} << 16;
    FrameTable larger;
    larger.mask = (slots == nullptr ? kFirstSlots : (mask + 1) * 2) - 1;
    larger.slots = static_cast<Slot*>(MapPages((larger.mask + 1) * sizeof(Slot)));
    if (larger.slots == nullptr) return false;
    for (std::size_t i = 0; slots != nullptr && i <= mask; ++i) {
      if (slots[i].number != 0) larger.Find(slots[i].pc, slots[i].era) = slots[i];
    }
    std::swap(slots, larger.slots);
    std::swap(mask, larger.mask);
    return true;
  }
};

}  // namespace profile
