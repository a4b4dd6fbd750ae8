// SPDX-License-Identifier: Apache-2.0
// The text of a report while it is written: an append-only buffer.
//
// Used by the report's writers on the dump thread. Unlike the C++ library's streams it has no
// locale (the program's locale may group digits), and it does not link stream code into the
// library.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

/// A list of pieces of one size. Text never moves, so a process that leaks needs memory only for
/// the text and at most one more piece. One thread at a time.
class ReportText {
 public:
  /// Size of a piece; also the size of one write to the file.
  static constexpr std::size_t kPieceBytes = std::size_t{64} << 10;

  ReportText() = default;
  ReportText(const ReportText&) = delete;
  ReportText& operator=(const ReportText&) = delete;

  // The functions below append and return *this. They throw std::bad_alloc after appending a part.

  ReportText& operator<<(std::string_view text);
  ReportText& operator<<(char character) { return *this << std::string_view(&character, 1); }
  /// In decimal.
  ReportText& operator<<(std::uint64_t number);
  ReportText& operator<<(std::int64_t number);
  /// In lowercase hexadecimal, without prefix.
  ReportText& Hexadecimal(std::uint64_t number);
  /// In decimal, padded with zeros to two digits.
  ReportText& TwoDigits(std::uint64_t number);

  /// The length in bytes.
  std::size_t size() const { return size_; }
  /// Copies the first `bytes` (at most size()) to `destination`.
  void CopyStart(char* destination, std::size_t bytes) const;
  /// Calls take(const char* text, std::size_t bytes) for each piece in order, until it returns
  /// false.
  template <typename Take>
  void ForEachPiece(Take take) const {
    for (std::size_t i = 0, rest = size_; rest != 0; ++i) {
      const std::size_t bytes = rest < kPieceBytes ? rest : kPieceBytes;
      if (!take(static_cast<const char*>(pieces_[i].get()), bytes)) return;
      rest -= bytes;
    }
  }

 private:
  ReportText& Number(std::uint64_t number, unsigned base, std::size_t least_digits);

  std::vector<std::unique_ptr<char[]>> pieces_;  // all full but the last
  std::size_t size_ = 0;
};
