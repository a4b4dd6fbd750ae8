#!/usr/bin/env python3
"""check_library_test.py COMPILER TREE DIRECTORY: builds a small library that is in order and others
with one fault each, and expects scripts/check-library to name exactly that fault; the same with an
object and scripts/check-symbols."""

import pathlib
import re
import shutil
import subprocess
import sys

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
    "text relocation": (["-DFAULT_TEXTREL", "-Wl,-z,notext"],
                        ["text relocations (DT_TEXTREL): some code is not position-independent"]),
    "lazy": (["-Wl,-z,lazy", "-fplt", "-DFAULT_EMULATED_TLS"], [
        "lazy binding: link with -z now", "1 slots of the global offset table stay writable",
        "emulated thread-local variables: "]),
    "no relro": (["-Wl,-z,norelro"], ["no PT_GNU_RELRO segment: link with -z relro"]),
    "constructor": (["-DFAULT_CONSTRUCTOR"], ["the static constructor _Z8Unlistedv is not in "
                                              "tracker/static_constructors.txt"]),
    "no frame record": (["-DFAULT_NO_RECORD"], [
        "track_malloc calls PointerData::Add without a frame record of its own"]),
    "jump": (["-DFAULT_JUMP"], [
        "PointerData::Add jumps to PointerData::AddBacktrace instead of calling it"]),
    "level between": (["-DFAULT_BETWEEN"], ["track_calloc does not call PointerData::Add"]),
    # Calls go through the global offset table, and one function has a jump to a linker's thunk.
    "bitmap of relocations": (["-fuse-ld=lld", "-Wl,--pack-dyn-relocs=relr", "-Wl,--no-relax",
                               "-fvisibility=default", "-DMANY_POINTERS",
                               "-Wl,--fix-cortex-a53-843419", "-DERRATUM"], []),
}
# Said of every library.
NOTES = ["branch protection: none", "the aim is fewer than"]
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

    def build(self, name, options):
        library = self.directory / (name.replace(" ", "-") + ".so")
        words = [f"-Wl,--version-script={self.directory}/other.map" if word == "{other_map}" else word
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
            self.expect(name, [library], 1 if faults else 0, [*faults, *NOTES])
        good = self.directory / "in-order.so"
        stripped = self.directory / "stripped.so"
        stripped.write_bytes(good.read_bytes())
        subprocess.run([self.compiler.replace("g++", "strip"), stripped], check=True)
        self.expect("stripped", [stripped], 0, [
            "counted only, the frame records of the capture and emulated thread-local variables not",
            *NOTES])
        # The measure is what strip leaves, to some bytes.
        said = subprocess.run([self.tree / "scripts/check-library", good], capture_output=True,
                              text=True, check=True).stdout
        size = int(re.search(r": (\d+) bytes stripped", said)[1])
        if abs(size - stripped.stat().st_size) > 200:
            self.failed = True
            print(f"{size} bytes said, {stripped.stat().st_size} left by strip")
        self.expect("platform", ["--platform", "android", good], 1,
                    ["needs libc.so.6, which is not among", "no BTI and PAC in its", *NOTES])
        self.expect("relro", [self.with_short_relro(good)], 1, [
            "inside a page of 16 KiB that holds writable data, too", *NOTES])
        packed = self.build("packed", ["-fuse-ld=lld", "-Wl,--pack-dyn-relocs=android",
                                       "-DMANY_POINTERS"])
        self.expect("packed", [packed], 2, ["packed.so: cannot be checked: packed relocations; "
                                            "link without -Wl,--pack-dyn-relocs=android"])
        cut = self.directory / "cut.so"
        cut.write_bytes(good.read_bytes()[:3000])
        self.expect("cut", [cut], 2, ["damaged: "])
        self.expect("text", [__file__], 2, ["not an ELF file"])
        self.expect("other machine", ["/proc/self/exe"], 1, ["is no shared library for 64-bit Arm"])


def main():
    checker = Checker(sys.argv[1], pathlib.Path(sys.argv[2]), pathlib.Path(sys.argv[3]))
    checker.check_libraries()
    checker.check_objects()
    return 1 if checker.failed else 0


if __name__ == "__main__":
    sys.exit(main())
