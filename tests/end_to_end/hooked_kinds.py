# SPDX-License-Identifier: Apache-2.0
"""End-to-end tests of the kinds that are recorded through hooks.

usage: hooked_kinds.py CASE BIN_DIR CONTROLLER [EMULATOR]
"""

import re
import resource
import shutil

import end_to_end

LIBRARY = "libend_to_end_mapper.so"
MMAP = ("--kind", "mmap", "--lib", LIBRARY)

# Maps regions of known sizes and unmaps the first ones. Mapped files are not recorded.
PYTHON = """
import ctypes, mmap, sys
library = ctypes.CDLL(sys.argv[1])
file = open(sys.executable)
for line in sys.stdin:
    files = [mmap.mmap(file.fileno(), 4096, prot=mmap.PROT_READ) for i in range(9)]
    kept = [mmap.mmap(-1, 65536 + 4096 * (i % 3)) for i in range(1000)]
    for region in kept[:400]:
        region[0] = 1
        region.close()
    kept = kept[400:]
    print("ok", flush=True)
"""


class Session(end_to_end.Session):
    def marks(self, library):
        """The marks that `libs` prints for the functions of a library: six words after its name."""
        after = self.memleak("libs", self.process.pid).split("\n" + library)[1]
        return set(after.split()[:6]) - {"-", "other"}


def mmap_python(session):
    """Hooks an extension module twice while python runs. The program works as before."""
    session.start_program("/usr/bin/python3.11", "-c", PYTHON, f"{session.bin_dir}/../lib/{LIBRARY}")
    session.step("first")
    module = "mmap.cpython-311-x86_64-linux-gnu.so"
    refused = ("on", session.process.pid, "--kind", "mmap", "--lib", "libm.so.6")  # has no slots
    session.memleak(*refused, code=2)
    # Intentional: the second library does not import all functions of the first. This is no error.
    for library in (module, f"{module},{LIBRARY}"):
        session.tell("on", "--kind", "mmap", "--lib", library)
        session.step("again")
        assert "These hooks" not in session.tell("report", "--kind", "mmap")
        assert session.marks(module) == {"yes"}, session.marks(module)
        assert session.sizes() == {65536: 200, 69632: 200, 73728: 200}, session.sizes()
        assert session.frames() == {module}, session.frames()
        session.step("unhooked")
    session.close()


def mmap_library(session):
    """Mappings of a library. With frame pointers their stacks contain the caller's frames."""
    session.start()
    session.tell("on", *MMAP, "--func", "mmap,munmap")
    session.step("map 1000 65536")
    session.step("map 10 8192")
    session.step("unmap 410")
    session.tell("pause", "--kind", "mmap")
    session.step("map 5 12288")
    session.tell("on", *MMAP, "--keep")
    session.step("map 7 20480")
    # Each function is hooked twice. A report removes one hook. The other one records nothing, and
    # the next report removes it.
    left = session.tell("report", "--kind", "mmap")
    assert "\nhooked  " + LIBRARY in left and "These hooks" in left, left
    assert session.marks(LIBRARY) == {"hooked"}, session.marks(LIBRARY)
    session.step("map 3 28672")
    assert "These hooks" not in session.tell("report", "--kind", "mmap")
    assert session.marks(LIBRARY) == {"yes"}, session.marks(LIBRARY)
    assert session.sizes() == {65536: 600, 20480: 7}, session.sizes()
    assert session.frames() == {LIBRARY}
    group = [g for g in session.groups() if g.size == 65536][0]
    assert "MapOne" in session.innermost(group), session.innermost(group)
    assert len(group.frames) >= 2, group.frames
    session.step("unmap 615")
    session.quit()


def many_hooks(session):
    """`on` names what it has hooked, also if the state file has no room for the results, and if
    there is no memory for the last hooks."""
    libraries = [f"a{i}.so" for i in range(10, 49)]
    for library in libraries:
        shutil.copy(f"{session.bin_dir}/../lib/{LIBRARY}", f"{session.root}/{library}")
    script = "import ctypes, sys\n[*map(ctypes.CDLL, sys.argv[1:])]; print('ok', flush=True); input()"
    session.start_program("/usr/bin/python3.11", "-S", "-c", script,
                          *(f"{session.root}/{library}" for library in libraries))
    assert session.answer() == "ok"
    said = set()
    for i in range(0, len(libraries), 13):
        if i == 26:
            resource.prlimit(session.process.pid, resource.RLIMIT_AS, (1, -1))
        out = session.tell("on", *MMAP[:2], "--lib", ",".join(libraries[i:i + 13]))
        said |= set(re.findall(r"^hooked  (\S+): mmap, munmap$", out, re.M))
    marks = session.memleak("libs", session.process.pid)
    hooked = {library for library in libraries if re.search(fr"^{library} .* hooked ", marks, re.M)}
    assert said == hooked and 26 < len(hooked) < len(libraries), said ^ hooked
    session.send("")
    assert session.process.wait(30) == 0


def from_start_to_exit(session):
    """Hooks are installed before main. The report at exit also removes the hooks."""
    session.start("--start", "--report-at-exit", *MMAP, "--func", "mmap,munmap")
    session.step("map 12 4096")
    session.quit()
    assert session.sizes() == {4096: 12}, session.sizes()
    with open(session.root + "/log") as log:
        text = log.read()
        assert "no sharelib" not in text and "unhook" not in text, text


if __name__ == "__main__":
    end_to_end.main(globals(), Session)
