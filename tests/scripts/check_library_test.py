#!/usr/bin/env python3
"""check_library_test.py COMPILER TREE DIRECTORY: builds a small library that is in order and others
with one fault each, and expects scripts/check-library to name exactly that fault; the same with an
object and scripts/check-symbols. Neither may end in a traceback or hang, whatever the file."""

import contextlib
import io
import pathlib
import random
import re
import runpy
import shutil
import signal
import subprocess
import sys
from unittest import mock

MAP = "-Wl,--version-script={tree}/tracker/libmemleak_tracker.map"
FLAGS = ["-std=c++17", "-O2", "-fPIC", "-shared", "-fvisibility=hidden", "-fno-omit-frame-pointer",
         "-fno-optimize-sibling-calls", "-fno-plt", "-nostdlib", "-Wl,--no-as-needed", "-lc",
         "-Wl,-Bsymbolic-functions", "-Wl,-z,relro", "-Wl,-z,now", "-Wl,-z,max-page-size=16384"]
# What is added to the command line, and what is said of the library then.
CASES = {
    "in order": ([], []),
    "thread-local": (["-DFAULT_TLS"], ["a TLS segment, of t_variable"]),
    "emulated thread-local": (["-DFAULT_EMULATED_TLS"], [
        "emulated thread-local variables: __emutls_get_address"]),
    "extra export": (["-DFAULT_EXPORT", "{other_map}"],
                     ["exports extra, which tracker/libmemleak_tracker.map does not name"]),
    "missing export": (["-Dtrack_finalize=renamed"], ["does not export track_finalize"]),
    "other version": (["{other_version}"],
                      ["exports RegistryAllocateTracker with the version OTHER, not LIBC_MALLOC"]),
    "text relocation": (["-DFAULT_TEXTREL", "-Wl,-z,notext"],
                        ["text relocations (DT_TEXTREL): some code is not position-independent"]),
    "lazy": (["-Wl,-z,lazy", "-fplt", "-DFAULT_EMULATED_TLS"], [
        "lazy binding: link with -z now", "1 slots of the global offset table stay writable",
        "emulated thread-local variables: "]),
    "no relro": (["-Wl,-z,norelro"], ["no PT_GNU_RELRO segment: link with -z relro"]),
    "small pages": (["-Wl,-z,max-page-size=4096"], [
        "segments are aligned to 4096 bytes, not to pages of 16 KiB"]),
    "library": (["-lm"], ["needs libm.so.6, which is not among the libraries it may need on linux"]),
    "constructor": (["-DFAULT_CONSTRUCTOR"], ["the static constructor _Z8Unlistedv is not in "
                                              "tracker/static_constructors.txt"]),
    "no frame record": (["-DFAULT_NO_RECORD"], [
        "track_malloc calls PointerData::Add without a frame record of its own"]),
    "jump": (["-DFAULT_JUMP"], [
        "PointerData::Add jumps to PointerData::AddBacktrace instead of calling it"]),
    "level between": (["-DFAULT_BETWEEN"], ["track_calloc does not call PointerData::Add"]),
    "large": (["-DFAULT_LARGE"], ["too large: 4"]),
    # Calls through the global offset table are understood by its relocations alone.
    "bitmap of relocations": (["-fuse-ld=lld", "-Wl,--pack-dyn-relocs=relr", "-Wl,--no-relax",
                               "-fvisibility=default", "-DMANY_POINTERS"], []),
}
# What an object uses, and what is said of it.
OBJECT_CASES = {
    "sscanf(text, text); errno = 1; throw std::bad_alloc(); static std::string s; s += text": [],
    "memfd_create(text, 0)": ["uses memfd_create, which"],
    "text = program_invocation_name": ["uses program_invocation_name, which"],
    "static thread_local volatile int t_number; t_number = 1": ["t_number is a thread-local"],
    "std::filesystem::current_path(text)": ["uses std::filesystem, which"],
}


class Checker:
    def __init__(self, compiler, tree, directory):
        self.compiler, self.tree, self.directory = compiler, tree, directory
        self.failed = False
        directory.mkdir(parents=True, exist_ok=True)
        text = (tree / "tracker/libmemleak_tracker.map").read_text(encoding="utf-8")
        # Compilers for other machines look for a linker in their own folders.
        (directory / "ld.lld").unlink(missing_ok=True)
        (directory / "ld.lld").symlink_to(
            shutil.which("ld.lld") or sys.exit("ld.lld is missing: run scripts/install-packages"))
        (directory / "other.map").write_text(text.replace("global:", "global: extra;"))
        self.source = pathlib.Path(__file__).with_name("small_tracker.cpp").read_text("utf-8")
        for name in re.findall(r"^ +(\w+);", text, re.MULTILINE):
            if name not in self.source:
                self.source += f"EXPORT void {name}() {{}}\n"
        last = "    RegistryAllocateTracker;\n"
        (directory / "version.map").write_text(
            text.replace(last, "") + "OTHER { global: RegistryAllocateTracker; };\n")

    def build(self, name, options):
        library = self.directory / (name.replace(" ", "-") + ".so")
        maps = {"{other_map}": "other.map", "{other_version}": "version.map"}
        words = [f"-Wl,--version-script={self.directory / maps[word]}" if word in maps else word
                 for word in options]
        if words == options:
            words.append(MAP.format(tree=self.tree))
        subprocess.run([self.compiler, "-xc++", "-", "-o", library, f"-B{self.directory}/", *FLAGS,
                        *words], input=self.source, text=True, check=True)
        return library

    def expect(self, what, command, code, lines, script="check-library"):
        """Exit code, and one line of the output that has each of `lines`, and no other."""
        run = subprocess.run([self.tree / "scripts" / script, *command], capture_output=True,
                             text=True, check=False)
        found = (run.stdout + run.stderr).splitlines()
        rest = [line for line in found if not any(text in line for text in lines)]
        if run.returncode != code or len(found) - len(rest) != len(lines) or rest:
            self.failed = True
            print(f"{what}: exit code {run.returncode}, expected {code} and {lines}; found:",
                  *found, sep="\n  ")

    def with_short_relro(self, library):
        """A copy whose read-only part ends before a page does."""
        data = bytearray(library.read_bytes())
        header, = (offset for offset in range(64, 64 + 56 * 12, 56)
                   if data[offset:offset + 4] == b"\x52\xe5\x74\x64")
        size = int.from_bytes(data[header + 40:header + 48], "little") - 8
        data[header + 40:header + 48] = size.to_bytes(8, "little")
        path = self.directory / "relro.so"
        path.write_bytes(data)
        return path

    def check_objects(self):
        headers = ("cerrno", "cstdio", "filesystem", "new", "string", "sys/mman.h")
        (self.directory / "linux").mkdir(exist_ok=True)
        for number, (statement, faults) in enumerate(OBJECT_CASES.items()):
            # An object of platform/linux/ may do all this but have a thread-local variable.
            for folder in ("", "linux"):
                path = self.directory / folder / f"object{number}.o"
                source = "".join(f"#include <{header}>\n" for header in headers)
                source += f"void f(const char* text) {{ {statement}; }}\n"
                subprocess.run([self.compiler, "-xc++", "-std=c++17", "-D_GNU_SOURCE", "-w", "-c", "-",
                                "-o", path], input=source, text=True, check=True)
                expected = [] if folder and "t_number" not in statement else faults
                self.expect(statement, [path], 1 if expected else 0,
                            expected or ["1 objects use"], "check-symbols")

    def check_libraries(self):
        for name, (options, faults) in CASES.items():
            library = self.build(name, options)
            self.expect(name, [library], 1 if faults else 0, [*faults, "the aim is fewer than"])
        good = self.directory / "in-order.so"
        stripped = self.directory / "stripped.so"
        stripped.write_bytes(good.read_bytes())
        subprocess.run([self.compiler.replace("g++", "strip"), stripped], check=True)
        self.expect("stripped", [stripped], 0, [
            "counted only, the frame records of the capture and emulated thread-local variables not",
            "the aim is fewer than"])
        # The measure is what strip leaves, to some bytes.
        said = subprocess.run([self.tree / "scripts/check-library", good], capture_output=True,
                              text=True, check=True).stdout
        size = int(said.split(": ")[1].split()[0])
        if abs(size - stripped.stat().st_size) > 200:
            self.failed = True
            print(f"{size} bytes said, {stripped.stat().st_size} left by strip")
        self.expect("platform", ["--platform", "android", good], 1,
                    ["needs libc.so.6, which is not among", "the aim is fewer than"])
        self.expect("relro", [self.with_short_relro(good)], 1, [
            "inside a page of 16 KiB that holds writable data, too", "the aim is fewer than"])
        packed = self.build("packed", ["-fuse-ld=lld", "-Wl,--pack-dyn-relocs=android",
                                       "-DMANY_POINTERS"])
        self.expect("packed", [packed], 2, ["packed.so: cannot be checked: packed relocations; "
                                            "link without -Wl,--pack-dyn-relocs=android"])
        cut = self.directory / "cut.so"
        cut.write_bytes(good.read_bytes()[:3000])
        self.expect("cut", [cut], 2, ["damaged: "])
        self.expect("text", [__file__], 2, ["not an ELF file"])
        self.expect("other machine", ["/proc/self/exe"], 1, ["is no shared library for 64-bit Arm"])

    def damages(self, elf, count):
        """Lists of what to write where: (place, bytes, number), always the same ones."""
        yield [(62, 2, -1)]  # e_shstrndx
        yield from ([(elf.shoff + 64 * index + 40, 4, -1)] for index in range(len(elf.sections)))
        if elf.dyn("VERDEFNUM"):
            # A dynamic symbol of a version that is not defined, and definitions without an end.
            defined = elf.data.index((0x6FFFFFFD).to_bytes(8, "little"))
            last = elf.symbols(11)[-1].index
            yield [(defined + 8, 8, 1 << 40), (elf.at(elf.dyn("VERSYM")) + 2 * last, 2, 77)]
        headers = (elf.shoff, 64 * len(elf.sections))
        tables = [(0, 64), headers, (64, 56 * len(elf.segments) or 8)] * 3 + [
            (section.offset, section.size) for section in elf.sections
            if section.size and section.name not in ("", ".text", ".bss")]
        choose = random.Random(1)
        for _ in range(count):
            changes = []
            for _ in range(choose.randint(1, 3)):
                start, size = choose.choice(tables)
                width = choose.choice((2, 4, 8))
                value = choose.choice((0, 1, 7, choose.getrandbits(16), choose.getrandbits(64), -1))
                changes.append((start + choose.randrange(size) // width * width, width, value))
            yield changes

    def check_damaged(self, script, name, count):
        """Runs the script's main() on damaged copies of a good file: each gets an exit code, soon.
        The copy that ends in a traceback stays."""
        sys.path.insert(0, str(self.tree / "scripts"))
        module = runpy.run_path(str(self.tree / "scripts" / script))
        path, elf = self.directory / "damaged", module["elf64"].Elf(self.directory / name)
        codes, output = set(), io.StringIO()
        for changes in self.damages(elf, count):
            data = bytearray(elf.data)
            for place, width, value in changes:
                data[place:place + width] = (value % (1 << 8 * width)).to_bytes(width, "little")
            path.write_bytes(data)
            signal.alarm(5)
            with mock.patch("sys.argv", [script, str(path)]), \
                    contextlib.redirect_stdout(output), contextlib.redirect_stderr(output):
                codes.add(module["main"]())
            signal.alarm(0)
        if codes != {0, 1, 2}:
            self.failed = True
            print(f"{script}: exit codes of damaged files: {codes}")


def on_alarm(_signal, _frame):
    raise RuntimeError("still running")


def main():
    checker = Checker(sys.argv[1], pathlib.Path(sys.argv[2]), pathlib.Path(sys.argv[3]))
    checker.check_libraries()
    checker.check_objects()
    signal.signal(signal.SIGALRM, on_alarm)
    checker.check_damaged("check-library", "in-order.so", 300)
    checker.check_damaged("check-library", "bitmap-of-relocations.so", 200)
    checker.check_damaged("check-symbols", "object1.o", 200)
    return 1 if checker.failed else 0


if __name__ == "__main__":
    sys.exit(main())
