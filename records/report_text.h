// The text of a report while it is being written: it only grows, and is read from its start.
//
// Used by the report's writers on the dump thread. Unlike the C++ library's streams it knows no
// locale (the program's own may group digits), and brings none into the library.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

/// A list of pieces of one size: text that was written never moves, so a process that leaks pays
/// for the text once, and for one piece at most beyond it. One thread at a time.
class ReportText {
 public:
  /// Of each piece; also what is handed to the file in one go.
  static constexpr std::size_t kPieceBytes = std::size_t{64} << 10;

  ReportText() = default;
  ReportText(const ReportText&) = delete;
  ReportText& operator=(const ReportText&) = delete;

  // Each appends and returns the text itself. Throws std::bad_alloc, with part of it appended.

  ReportText& operator<<(std::string_view text);
  ReportText& operator<<(char character) { return *this << std::string_view(&character, 1); }
  /// In decimal.
  ReportText& operator<<(std::uint64_t number);
  ReportText& operator<<(std::int64_t number);
  /// In lowercase hexadecimal, without prefix.
  ReportText& Hexadecimal(std::uint64_t number);
  /// In decimal, with a leading zero when it has one digit.
  ReportText& TwoDigits(std::uint64_t number);

  /// How many bytes there are.
  std::size_t size() const { return size_; }
  /// Copies the first `bytes` (at most size()) to `destination`.
  void CopyStart(char* destination, std::size_t bytes) const;
  /// Calls take(const char* text, std::size_t bytes) for one piece after the other, until it
  /// returns false.
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
