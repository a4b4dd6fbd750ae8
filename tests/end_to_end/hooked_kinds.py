# SPDX-License-Identifier: Apache-2.0
"""End-to-end tests of the kinds that are recorded through hooks.

usage: hooked_kinds.py CASE BIN_DIR CONTROLLER [EMULATOR]
"""

import os
import subprocess
import sys

import end_to_end

# Maps regions of known sizes and unmaps the first ones.
PYTHON = """
import ctypes, mmap, sys
library = ctypes.CDLL(sys.argv[1])
for line in sys.stdin:
    kept = [mmap.mmap(-1, 65536 + 4096 * (i % 3)) for i in range(1000)]
    for region in kept[:400]:
        region[0] = 1
        region.close()
    kept = kept[400:]
    sys.stdout.write("ok\\n")
    sys.stdout.flush()
"""

SQL = """CREATE TABLE $(i INTEGER PRIMARY KEY, text TEXT);
WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 20000)
  INSERT INTO $ SELECT i, printf('row %06d', i) FROM n;
SELECT count(*) || ' ' || sum(length(text)) FROM $;
"""


class HookSession(end_to_end.Session):
    def start_program(self, *command, options=()):
        run = self.run_command("", *options)
        run = [*run[:run.index("--") + 1], *command]
        self.process = subprocess.Popen(run, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        stderr=subprocess.STDOUT, text=True, bufsize=1)

    def start_mapper(self, *options):
        self.start_program(f"{self.bin_dir}/end_to_end_mapper", options=options)
        self.step("map 3 4096")  # not recorded; returns when the program is ready

    def sizes(self):
        """The report's blocks as {size: count}."""
        found = {}
        for group in self.groups():
            found[group.size] = found.get(group.size, 0) + group.count
        return found

    def marks(self, library):
        """The marks that `libs` prints for the functions of a library: six words after its name."""
        after = self.memleak("libs", self.process.pid).split("\n" + library)[1]
        return set(after.split()[:6]) - {"-", "other"}

    def frames(self):
        return {group.frames[0][0].rpartition("/")[2] for group in self.groups()}


def mmap_python(session):
    """Hooks an extension module twice while python runs. The program works as before."""
    other = "libend_to_end_mapper.so"
    session.start_program("/usr/bin/python3.11", "-c", PYTHON, f"{session.bin_dir}/../lib/{other}")
    session.step("first")
    module = "mmap.cpython-311-x86_64-linux-gnu.so"
    # Intentional: the second library does not import all functions of the first. This is no error.
    for library in (module, f"{module},{other}"):
        on = subprocess.run([*session.controller, "on", str(session.process.pid), "--kind", "mmap",
                             "--lib", library], capture_output=True, text=True, timeout=60)
        assert (on.returncode, on.stderr) == (0, ""), on.stderr
        session.step("again")
        assert "These hooks" not in session.tell("report", "--kind", "mmap")
        assert session.marks(module) == {"yes"}, session.marks(module)
        assert session.sizes() == {65536: 200, 69632: 200, 73728: 200}, session.sizes()
        assert session.frames() == {module}, session.frames()
        session.step("unhooked")
    session.process.stdin.close()
    assert session.process.wait(30) == 0


def mmap_library(session):
    """Mappings of a library. With frame pointers their stacks contain the caller's frames."""
    session.start_mapper()
    session.tell("on", "--kind", "mmap", "--lib", "libend_to_end_mapper.so",
                 "--func", "mmap,munmap")
    session.step("map 1000 65536")
    session.step("map 10 8192")
    session.step("unmap 410")
    session.tell("pause", "--kind", "mmap")
    session.step("map 5 12288")
    session.tell("on", "--kind", "mmap", "--lib", "libend_to_end_mapper.so", "--keep")
    session.step("map 7 20480")
    # Each function is hooked twice. A report removes one hook. The other one records nothing, and
    # the next report removes it.
    library = "libend_to_end_mapper.so"
    left = session.tell("report", "--kind", "mmap")
    assert "\nhooked  " + library in left and "These hooks" in left, left
    assert session.marks(library) == {"hooked"}, session.marks(library)
    session.step("map 3 28672")
    assert "These hooks" not in session.tell("report", "--kind", "mmap")
    assert session.marks(library) == {"yes"}, session.marks(library)
    assert session.sizes() == {65536: 600, 20480: 7}, session.sizes()
    assert session.frames() == {"libend_to_end_mapper.so"}
    group = [g for g in session.groups() if g.size == 65536][0]
    assert "MapOne" in session.innermost(group), session.innermost(group)
    assert len(group.frames) >= 2, group.frames
    session.step("unmap 615")
    session.quit()


def devices(session):
    """DMA-heap and GPU buffers. Requests to the device and its answers are the same as without
    hooks."""
    session.start_mapper()
    session.tell("on", "--kind", "ion")
    session.step("ion 30 4096")
    session.step("other 3")
    session.tell("report", "--kind", "ion")
    assert session.sizes() == {4096: 30}, session.sizes()
    assert session.frames() == {"libdmabufheap.so"}
    session.step("ion 5 4096")
    session.tell("on", "--kind", "gpu")
    session.step("gpu 40 1048576")
    session.step("gpufree 15")
    session.step("other 1")
    session.tell("report", "--kind", "gpu")
    assert session.sizes() == {1048576: 25}, session.sizes()
    assert session.frames() == {"libgsl.so"}
    session.step("gpufree 25")
    session.quit()


def from_the_start(session):
    """Hooks are installed before main."""
    session.start_program(
        f"{session.bin_dir}/end_to_end_mapper",
        options=("--start", "--kind", "mmap", "--lib", "libend_to_end_mapper.so"))
    session.step("map 12 4096")
    session.tell("report", "--kind", "mmap")
    assert session.sizes() == {4096: 12}, session.sizes()
    session.quit()


def at_exit(session):
    """Recording is switched on from outside. The report at exit also removes the hooks."""
    session.start_mapper("--report-at-exit", "--kind", "mmap", "--lib", "libend_to_end_mapper.so")
    session.tell("on", "--kind", "mmap", "--lib", "libend_to_end_mapper.so")
    session.step("map 5 4096")
    session.quit()
    assert session.sizes() == {4096: 5}, session.sizes()
    with open(session.root + "/log") as log:
        text = log.read()
        assert "no sharelib" not in text and "unhook" not in text, text


def sqlite(session):
    """Native sqlite calls its mapping functions through its own table and has no slot for them. The
    command says so and changes nothing. On 64-bit Arm sqlite has slots too and is hooked. It maps
    only files, which are not recorded. In both cases sqlite continues to work."""
    unpacked = os.environ.get("MEMLEAK_ARM64_PROGRAMS", "")
    if unpacked:
        libraries = f"{unpacked}/usr/lib/aarch64-linux-gnu:{unpacked}/lib/aarch64-linux-gnu"
        session.emulator += f" -E LD_LIBRARY_PATH={libraries}"
    session.start_program(unpacked + "/usr/bin/sqlite3", session.root + "/test.db")
    session.process.stdin.write("PRAGMA mmap_size = 16777216;\n")
    assert session.answer() == "16777216"
    target = ["--kind", "mmap", "--lib", "libsqlite3.so.0", "--func", "mmap64,munmap,mremap"]
    if unpacked:
        session.tell("on", *target)
    else:
        refused = subprocess.run([*session.controller, "on", str(session.process.pid), *target],
                                 capture_output=True, text=True, timeout=60)
        assert refused.returncode != 0
        assert "libsqlite3.so.0" in refused.stderr, refused.stderr
        with open(session.root + "/properties", "a") as properties:
            properties.write("persist.sys.memleak.hookLib=libsqlite3.so.0\n"
                             "persist.sys.memleak.hookFunc=mmap64,munmap,mremap\n")
        session.memleak("send", session.process.pid, "--word", "0x100")
    session.process.stdin.write(SQL.replace("$", "one"))
    assert session.answer() == "20000 200000"
    session.tell("report", "--kind", "mmap")
    with open(session.root + "/data/log/reliability/allocations_dump") as report:
        assert "\nsz " not in report.read(), "a mapped file"
    session.process.stdin.write(SQL.replace("$", "two"))
    assert session.answer() == "20000 200000"
    session.process.stdin.close()
    assert session.process.wait(30) == 0
    with open(session.root + "/log") as log:
        wanted = "set mmaphook to:true" if unpacked else "all plt hook failed!"
        text = log.read()
        assert wanted in text, text


if __name__ == "__main__":
    end_to_end.main(globals(), HookSession)
