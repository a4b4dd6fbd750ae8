// SPDX-License-Identifier: Apache-2.0
// Finds and reads frame description entries: by the sorted table of .eh_frame_hdr, or one after the
// other in .eh_frame where the linker made no table. Any thread, any context.
#include "platform/cfi/frame_entry.h"

#include <cstring>

namespace platform::cfi {
namespace {

/// The only encoding of the sorted table that linkers make: 4 bytes, signed, relative to the
/// header (DW_EH_PE_datarel | DW_EH_PE_sdata4).
constexpr std::uint8_t kTableEncoding = 0x3b;
constexpr std::uint32_t kExtendedLength = 0xffffffff;  // of 64-bit DWARF, not used in .eh_frame

/// A pair of the sorted table.
struct TablePair {
  std::int32_t function;
  std::int32_t entry;
};

TableReader ReaderAt(const LoadedObject& object, std::uint64_t address) {
  const std::uint64_t end = object.ReadableEnd(address, 1);
  return end == 0 ? TableReader() : TableReader(address, end);
}

/// Reads the length of a CIE or FDE. Returns a reader of its contents, empty at the section's end
/// and for what cannot be read.
TableReader TakeContents(TableReader* section) {
  const auto length = section->Take<std::uint32_t>();
  const std::uint64_t begin = section->address();
  if (length == kExtendedLength) return {};
  section->Skip(length);
  return section->ok() ? TableReader(begin, section->address()) : TableReader();
}

/// Reads the CIE at `address` into `entry`. `augmented` says whether entries carry a block of data
/// of their own.
bool ReadShared(const LoadedObject& object, std::uint64_t address, FrameEntry* entry,
                bool* augmented) {
  TableReader section = ReaderAt(object, address);
  TableReader reader = TakeContents(&section);
  if (reader.Take<std::uint32_t>() != 0) return false;  // an FDE
  const auto version = reader.Take<std::uint8_t>();
  if (version != 1 && version != 3 && version != 4) return false;
  const char* augmentation = reader.TakeText();
  if (version == 4) reader.Skip(2);  // sizes of addresses and segment selectors
  entry->code_alignment = reader.TakeUnsigned();
  entry->data_alignment = reader.TakeSigned();
  entry->return_address_column = version == 1 ? reader.Take<std::uint8_t>() : reader.TakeUnsigned();
  *augmented = augmentation[0] == 'z';
  // The length of the block is needed to find the instructions.
  if (!*augmented && augmentation[0] != '\0') return false;
  TableReader data = *augmented ? reader.TakeBlock() : TableReader();
  for (const char* letter = augmentation; *letter != '\0'; ++letter) {
    if (*letter == 'R') {
      entry->address_encoding = data.Take<std::uint8_t>();
    } else if (*letter == 'P') {
      data.SkipPointer(data.Take<std::uint8_t>());
    } else if (*letter == 'L') {
      data.Skip(1);
    } else if (*letter == 'S') {
      entry->is_signal_frame = true;
    } else if (*letter != 'z' && *letter != 'B' && *letter != 'G') {
      // B and G tell of signed return addresses and tagged memory, and have no data.
      return false;
    }
  }
  entry->shared_program = reader;
  return reader.ok() && (!*augmented || data.ok());
}

/// Reads the FDE whose contents `reader` is at. False when it does not hold `pc`.
bool ReadEntry(const LoadedObject& object, TableReader reader, std::uint64_t pc,
               FrameEntry* entry) {
  const std::uint64_t place = reader.address();
  const auto distance = reader.Take<std::uint32_t>();
  if (!reader.ok() || distance == 0) return false;  // a CIE
  *entry = FrameEntry();
  bool augmented = false;
  if (!ReadShared(object, place - distance, entry, &augmented)) return false;
  entry->begin = reader.TakePointer(entry->address_encoding, 0);
  const std::uint64_t bytes = reader.TakePointer(entry->address_encoding & kPointerFormat, 0);
  if (augmented) reader.TakeBlock();
  entry->program = reader;
  return reader.ok() && pc - entry->begin < bytes;
}

/// The address of the entry in the sorted table of `count` pairs that holds `pc`, if any does.
std::uint64_t SearchTable(std::uint64_t header, std::uint64_t table, std::uint64_t count,
                          std::uint64_t pc) {
  // Pairs are taken one by one: the table may lie at any address.
  const auto pair_at = [table](std::uint64_t index) {
    TablePair pair;
    std::memcpy(&pair, reinterpret_cast<const void*>(table + index * sizeof pair), sizeof pair);
    return pair;
  };
  const auto address_of = [header](std::int32_t offset) {
    return header + static_cast<std::uint64_t>(static_cast<std::int64_t>(offset));
  };
  std::uint64_t first = 0;  // the last function at or below pc is in [first, last)
  std::uint64_t last = count;
  while (last - first > 1) {
    const std::uint64_t middle = first + (last - first) / 2;
    if (address_of(pair_at(middle).function) <= pc) {
      first = middle;
    } else {
      last = middle;
    }
  }
  return address_of(pair_at(first).entry);
}

}  // namespace

bool FindFrameEntry(const LoadedObject& object, std::uint64_t pc, FrameEntry* entry) {
  if (object.frame_header == 0) return false;
  TableReader header = ReaderAt(object, object.frame_header);
  const auto version = header.Take<std::uint8_t>();
  const auto section_encoding = header.Take<std::uint8_t>();
  const auto count_encoding = header.Take<std::uint8_t>();
  const auto table_encoding = header.Take<std::uint8_t>();
  if (!header.ok() || version != 1) return false;
  const std::uint64_t section = header.TakePointer(section_encoding, object.frame_header);

  if (count_encoding != kPointerOmitted && table_encoding == kTableEncoding) {
    const std::uint64_t count = header.TakePointer(count_encoding, object.frame_header);
    if (!header.ok() || count == 0) return false;
    if (count > (header.end() - header.address()) / sizeof(TablePair)) return false;
    TableReader found =
        ReaderAt(object, SearchTable(object.frame_header, header.address(), count, pc));
    return ReadEntry(object, TakeContents(&found), pc, entry);
  }

  TableReader entries = ReaderAt(object, section);
  while (!entries.empty()) {
    const TableReader contents = TakeContents(&entries);
    if (contents.empty()) return false;
    if (ReadEntry(object, contents, pc, entry)) return true;
  }
  return false;
}

}  // namespace platform::cfi
