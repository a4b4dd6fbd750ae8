"""Reads 64-bit little-endian ELF files, as far as the checks in this folder need it.

Nothing beside Python: the same answers wherever a library is checked.
"""

import collections
import functools
import pathlib
import struct

EM_AARCH64 = 183
ET_REL, ET_DYN = 1, 3
PT_LOAD, PT_TLS, PT_GNU_RELRO, PT_GNU_PROPERTY = 1, 7, 0x6474E552, 0x6474E553
PF_W = 2
SHT_SYMTAB, SHT_STRTAB, SHT_NOBITS, SHT_DYNSYM = 2, 3, 8, 11
SHF_ALLOC = 2
SHN_UNDEF, SHN_ABS = 0, 0xFFF1
STB_LOCAL, STT_FUNC, STT_TLS = 0, 2, 6
# ThreadMark::values_, the only thread-local variable. Builds for Android do without it.
LINUX_THREAD_MARKS = "_ZN10ThreadMark7values_E"
R_AARCH64_GLOB_DAT, R_AARCH64_JUMP_SLOT, R_AARCH64_RELATIVE = 1025, 1026, 1027
# The property of code whose functions all agree, and its bits.
GNU_PROPERTY_AARCH64_FEATURE_1_AND = 0xC0000000
AARCH64_FEATURES = {"BTI": 1, "PAC": 2}
DT = {"NEEDED": 1, "PLTRELSZ": 2, "STRTAB": 5, "SYMTAB": 6, "RELA": 7, "RELASZ": 8, "INIT": 12,
      "TEXTREL": 22, "JMPREL": 23, "BIND_NOW": 24, "INIT_ARRAY": 25, "INIT_ARRAYSZ": 27,
      "FLAGS": 30, "RELRSZ": 35, "RELR": 36, "ANDROID_REL": 0x6000000F,
      "ANDROID_RELA": 0x60000011, "ANDROID_RELR": 0x6FFFE000, "ANDROID_RELRSZ": 0x6FFFE001,
      "VERSYM": 0x6FFFFFF0, "FLAGS_1": 0x6FFFFFFB, "VERDEF": 0x6FFFFFFC, "VERDEFNUM": 0x6FFFFFFD}

Segment = collections.namedtuple("Segment", "type flags offset vaddr paddr filesz memsz align")
Section = collections.namedtuple(
    "Section", "name type flags addr offset size link info align entsize")
Symbol = collections.namedtuple("Symbol", "name bind type section value size index")
Relocation = collections.namedtuple("Relocation", "offset symbol type addend")


class ElfError(Exception):
    """What keeps a file from being read, for people."""


class Elf:
    """One file. Raises ElfError (also later, for tables outside the file) and OSError."""

    def __init__(self, path):
        self.data = pathlib.Path(path).read_bytes()
        if self.data[:4] != b"\x7fELF" or len(self.data) < 64:
            raise ElfError("not an ELF file")
        if self.data[4] != 2 or self.data[5] != 1:
            raise ElfError("not a 64-bit little-endian ELF file")
        (self.type, self.machine, _, _, phoff, self.shoff, _, _, phentsize, phnum, shentsize, shnum,
         shstrndx) = self._unpack("<HHIQQQIHHHHHH", 16)
        if (phnum and phentsize != 56) or (shnum and shentsize != 64):
            raise ElfError("damaged: headers of another size")
        self.segments = []
        for index in range(phnum):
            kind, flags, *rest = self._unpack("<IIQQQQQQ", phoff + index * phentsize)
            self.segments.append(Segment(kind, flags, *rest))
        headers = [self._unpack("<IIQQQQIIQQ", self.shoff + index * shentsize)
                   for index in range(shnum)]
        if shstrndx >= max(shnum, 1):
            raise ElfError(f"damaged: the sections' names are in section {shstrndx} of {shnum}")
        names = headers[shstrndx][4] if headers else 0
        self.sections = [Section(self.text(names + header[0]), *header[1:]) for header in headers]

    def _unpack(self, layout, offset):
        try:
            return struct.unpack_from(layout, self.data, offset)
        except (struct.error, OverflowError) as error:
            raise ElfError(f"damaged: a table at {offset:#x} leaves the file") from error

    def text(self, offset):
        return self.data[offset:self.data.find(b"\0", offset)].decode("utf-8", "replace")

    def at(self, address):
        """The file's offset of an address."""
        for segment in self.segments:
            if segment.type == PT_LOAD and 0 <= address - segment.vaddr < segment.filesz:
                return address - segment.vaddr + segment.offset
        raise ElfError(f"damaged: address {address:#x} is in no segment of the file")

    @functools.cached_property
    def dynamic(self):
        """The dynamic section: a list of values by tag."""
        values = collections.defaultdict(list)
        offset = next((segment.offset for segment in self.segments if segment.type == 2), None)
        while offset is not None:
            tag, value = self._unpack("<QQ", offset)
            if tag == 0:
                break
            values[tag].append(value)
            offset += 16
        return values

    def dyn(self, name, default=0):
        """The value of the dynamic entry with this name."""
        return self.dynamic.get(DT[name], [default])[0]

    @functools.cached_property
    def needed(self):
        strings = self.at(self.dyn("STRTAB"))
        return [self.text(strings + value) for value in self.dynamic.get(DT["NEEDED"], [])]

    @functools.cached_property
    def branch_protection(self):
        """The names of the AArch64 features that the file's GNU property note claims."""
        for segment in (s for s in self.segments if s.type == PT_GNU_PROPERTY):
            name_size, size, _, _ = self._unpack("<III4s", segment.offset)
            offset = segment.offset + 12 + name_size
            end = offset + size
            while offset < end:
                kind, length, value = self._unpack("<III", offset)
                if kind == GNU_PROPERTY_AARCH64_FEATURE_1_AND:
                    return [name for name, bit in AARCH64_FEATURES.items() if value & bit]
                offset += 8 + -(-length // 8) * 8
        return []

    def symbols(self, kind):
        """The symbols of the table with this section type, but for the null symbol."""
        found = []
        for table in (section for section in self.sections if section.type == kind):
            if table.link >= len(self.sections):
                raise ElfError(f"damaged: {table.name} has its names in section {table.link} of "
                               f"{len(self.sections)}")
            strings = self.sections[table.link].offset
            for index in range(1, table.size // 24):
                name, info, _, section, value, size = self._unpack(
                    "<IBBHQQ", table.offset + index * 24)
                found.append(Symbol(self.text(strings + name), info >> 4, info & 15, section, value,
                                    size, index))
        return found

    @functools.cached_property
    def relocations(self):
        """All dynamic relocations. ElfError for those in Android's packed form: leaving them out
        would make a library look right."""
        if self.dyn("ANDROID_RELA") or self.dyn("ANDROID_REL"):
            raise ElfError("cannot be checked: packed relocations; link without "
                           "-Wl,--pack-dyn-relocs=android")
        found = []
        for start, size in (("RELA", "RELASZ"), ("JMPREL", "PLTRELSZ")):
            if self.dyn(start):
                base = self.at(self.dyn(start))
                for offset in range(base, base + self.dyn(size), 24):
                    where, info, addend = self._unpack("<QQq", offset)
                    found.append(Relocation(where, info >> 32, info & 0xFFFFFFFF, addend))
        for start, size in (("RELR", "RELRSZ"), ("ANDROID_RELR", "ANDROID_RELRSZ")):
            if self.dyn(start):
                for where in self._relr_addresses(self.at(self.dyn(start)), self.dyn(size)):
                    addend, = self._unpack("<q", self.at(where))
                    found.append(Relocation(where, 0, R_AARCH64_RELATIVE, addend))
        return found

    def _relr_addresses(self, offset, size):
        """Where the entries of a DT_RELR table relocate. An even entry is an address; the bits
        of an odd one, but for the lowest, stand for the 63 words behind what the one before covers.
        """
        following = None
        for place in range(offset, offset + size, 8):
            entry, = self._unpack("<Q", place)
            if not entry & 1:
                yield entry
                following = entry + 8
            elif following is None:
                raise ElfError("damaged: the relative relocations begin without an address")
            else:
                yield from (following + 8 * (bit - 1) for bit in range(1, 64) if entry >> bit & 1)
                following += 8 * 63

    @functools.cached_property
    def relative(self):
        """The addresses that relative relocations store, by where they store them."""
        return {relocation.offset: relocation.addend for relocation in self.relocations
                if relocation.type == R_AARCH64_RELATIVE}

    def version(self, symbol):
        """The name of the version that a dynamic symbol is defined with, None without one."""
        if not self.dyn("VERSYM"):
            return None
        wanted, = self._unpack("<H", self.at(self.dyn("VERSYM")) + 2 * symbol.index)
        return self.versions.get(wanted & 0x7FFF)

    @functools.cached_property
    def versions(self):
        """The names of the versions that the file defines, by index, but for the file's own."""
        found = {}
        offset = self.at(self.dyn("VERDEF")) if self.dyn("VERDEF") else 0
        count = self.dyn("VERDEFNUM")
        for number in range(1, count + 1):
            _, flags, index, _, _, names, step = self._unpack("<HHHHIII", offset)
            if not flags & 1:  # 1: the file's own name
                name, = self._unpack("<I", offset + names)
                found.setdefault(index, self.text(self.at(self.dyn("STRTAB")) + name))
            if number < count and step == 0:
                raise ElfError(f"damaged: the versions' definitions end behind {number} of {count}")
            offset += step
        return found

    def words(self, address, size):
        """The 32-bit words at an address, with all of the last one."""
        return self._unpack(f"<{-(-size // 4)}I", self.at(address))

    @functools.cached_property
    def initializers(self):
        """The addresses of DT_INIT_ARRAY, in order."""
        start, size = self.dyn("INIT_ARRAY"), self.dyn("INIT_ARRAYSZ")
        # Where relocations are packed the address stands in its place.
        return [self.relative.get(slot, 0) or self._unpack("<Q", self.at(slot))[0]
                for slot in range(start, start + size, 8)]
