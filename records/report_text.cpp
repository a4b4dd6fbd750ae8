// SPDX-License-Identifier: Apache-2.0
// The text of a report. Dump thread only.
#include "records/report_text.h"

#include <algorithm>
#include <cstring>

ReportText& ReportText::operator<<(std::string_view text) {
  while (!text.empty()) {
    const std::size_t used = size_ % kPieceBytes;
    // Not make_unique, which would zero the piece.
    if (size_ == pieces_.size() * kPieceBytes) pieces_.emplace_back(new char[kPieceBytes]);
    const std::size_t bytes = std::min(text.size(), kPieceBytes - used);
    std::memcpy(pieces_.back().get() + used, text.data(), bytes);
    size_ += bytes;
    text.remove_prefix(bytes);
  }
  return *this;
}

ReportText& ReportText::operator<<(std::uint64_t number) {
  return Number(number, 10, 1);
}

ReportText& ReportText::operator<<(std::int64_t number) {
  if (number >= 0) return *this << static_cast<std::uint64_t>(number);
  return *this << '-' << (0 - static_cast<std::uint64_t>(number));
}

ReportText& ReportText::Hexadecimal(std::uint64_t number) {
  return Number(number, 16, 1);
}

ReportText& ReportText::TwoDigits(std::uint64_t number) {
  return Number(number, 10, 2);
}

ReportText& ReportText::Number(std::uint64_t number, unsigned base, std::size_t least_digits) {
  char digits[20];  // UINT64_MAX in decimal
  std::size_t first = sizeof(digits);
  while (number != 0 || sizeof(digits) - first < least_digits) {
    digits[--first] = "0123456789abcdef"[number % base];
    number /= base;
  }
  return *this << std::string_view(digits + first, sizeof(digits) - first);
}

void ReportText::CopyStart(char* destination, std::size_t bytes) const {
  ForEachPiece([&](const char* text, std::size_t piece_bytes) {
    const std::size_t taken = std::min(bytes, piece_bytes);
    std::memcpy(destination, text, taken);
    destination += taken;
    bytes -= taken;
    return bytes != 0;
  });
}
