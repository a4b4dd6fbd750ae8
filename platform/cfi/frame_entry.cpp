// SPDX-License-Identifier: Apache-2.0
// Finds and reads frame description entries: by the sorted table of .eh_frame_hdr, or by a scan of
// .eh_frame if the linker made no table. Any thread, any context.
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

/// Reads the length of a CIE or FDE and skips its contents. Returns a reader of the contents; it is
/// empty at the end of the section and if the contents cannot be read.
TableReader TakeContents(TableReader* section) {
  const auto length = section->Take<std::uint32_t>();
  const std::uint64_t begin = section->address();
  if (length == kExtendedLength) return {};
  section->Skip(length);
  return section->ok() ? TableReader(begin, section->address()) : TableReader();
}

/// Reads the CIE at `address` into `entry`. Sets `augmented` if each FDE has a block of data.
/// Returns false if the CIE is damaged or not supported.
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
  // Without the block's length, the start of the instructions is unknown.
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
      // B and G mark signed return addresses and tagged memory. They have no data.
      return false;
    }
  }
  entry->shared_program = reader;
  return reader.ok() && (!*augmented || data.ok());
}

/// Reads the FDE whose contents `reader` points to. Returns false if it does not cover `pc`.
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

/// Searches the sorted table of `count` pairs. Returns the address of the only entry that can cover
/// `pc`.
std::uint64_t SearchTable(std::uint64_t header, std::uint64_t table, std::uint64_t count,
                          std::uint64_t pc) {
  // Each pair is copied, because the table may be unaligned.
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
