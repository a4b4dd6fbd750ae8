# SPDX-License-Identifier: Apache-2.0
"""Tests with real programs: every view and export reports the known leaks.

usage: real_programs.py CASE BIN_DIR CONTROLLER [EMULATOR]

MEMLEAK_ARM64_PROGRAMS names unpacked arm64 packages, if any, MEMLEAK_PROTO the schema of pprof files.
"""

import gzip
import json
import os
import re
import shutil
import subprocess

import end_to_end

PYTHON = """
import ctypes, sys
library = ctypes.CDLL(sys.argv[1])
library.RememberSessions.argtypes = [ctypes.c_size_t, ctypes.c_size_t]
for line in sys.stdin:
    library.RememberSessions(int(line), 1000)
    print("ok", flush=True)
"""

# The size of a block that contains a page. sqlite3's other blocks of about a page are smaller.
PAGE_BYTES = range(4096 + 128, 4096 + 512)

# The second text prints the number of pages of the database. All of them are on the heap.
SQL = ["""CREATE TABLE t(i INTEGER PRIMARY KEY, x TEXT); CREATE INDEX tx ON t(x);
""", """WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 2000)
  INSERT INTO t(x) SELECT printf('row %06d', i) FROM n; PRAGMA page_count;
"""]


def figures(groups):
    """The number of blocks and of bytes in the groups."""
    return sum(g["count"] for g in groups), sum(g["total"] for g in groups)


class Document:
    """A report as written by `memleak export --format json`."""

    def __init__(self, text):
        self.all = json.loads(text)
        self.groups, self.totals = self.all["groups"], self.all["totals"]

    def through(self, function):
        """The groups whose stack contains the function."""
        named = {i for i, f in enumerate(self.all["frames"]) if f["function"] == function}
        return [g for g in self.groups if named.intersection(g["stack"])]


class Session(end_to_end.Session):
    options = ()  # where to find symbols

    def take(self, name, *options):
        self.memleak("report", self.process.pid, *options)
        path = f"{self.root}/{name}"
        shutil.copy(self.root + "/data/log/reliability/allocations_dump", path)
        return path

    def read(self, command, *arguments, code=0):
        return self.memleak(command, *arguments, *self.options, code=code)

    def document(self, report):
        return Document(self.read("export", report, "--format", "json"))

    def check_views(self, report, document, function):
        """Every view contains all blocks and has the same figures for the function."""
        assert figures(document.groups) == (document.totals["blocks"],
                                            document.totals["listedBytes"])
        blocks, held = figures(document.through(function))
        assert 1 <= held / 1024 < 1024, "shown in KiB"
        for view in ("stack", "library", "function", "tree", "callers"):
            text = self.read("show", report, "--by", view, "--top", 0)
            assert f"({document.totals['bytes']:,} bytes) in {document.totals['groups']} " in text
            assert "Not shown: nothing\n" in text, text
            if view == "stack":
                counts = re.findall(r"^#\d+ .*  ([\d,]+) block", text, re.M)
                assert len(counts) == document.totals["listedGroups"]
                assert sum(int(c.replace(",", "")) for c in counts) == document.totals["blocks"]
            elif view == "function":
                assert re.search(fr" {held / 1024:.1f} KiB +{blocks:,}  {function}", text, re.M)
            elif view != "library":
                assert function in text

    def check_exports(self, report, document, function):
        """The exports for other programs have the same sums."""
        known = figures(document.through(function))
        for i, by in enumerate(("count", "bytes")):
            lines = self.read("export", report, "--format", "folded", "--by", by).splitlines()
            values = [(line.split(" ")[0].split(";"), int(line.split(" ")[1])) for line in lines]
            assert sum(v for _, v in values) == figures(document.groups)[i]
            assert sum(v for stack, v in values if function in stack) == known[i]

        scope = json.loads(self.read("export", report, "--format", "speedscope"))
        frames = [f["name"] for f in scope["shared"]["frames"]]
        for i, profile in ((1, scope["profiles"][0]), (0, scope["profiles"][1])):
            assert sum(profile["weights"]) == profile["endValue"] == figures(document.groups)[i]
            stacks = zip(profile["samples"], profile["weights"])
            assert sum(w for s, w in stacks if function in [frames[f] for f in s]) == known[i]

        pprof = self.root + "/leak.pb.gz"
        self.read("export", report, "--format", "pprof", "-o", pprof)
        directory, schema = os.path.split(os.environ["MEMLEAK_PROTO"])
        with gzip.open(pprof) as packed:
            text = subprocess.run(
                ["protoc", "--decode=perftools.profiles.Profile", "-I", directory, schema],
                input=packed.read(), capture_output=True, check=True).stdout.decode()
        values = [int(v) for v in re.findall(r"^  value: (\d+)$", text, re.M)]
        assert (sum(values[0::2]), sum(values[1::2])) == figures(document.groups)
        assert f'string_table: "{function}"' in text

    def check_growth(self, old, new, function):
        """The differences add up to the totals, and the function comes first. Returns its
        groups."""
        before, after = self.document(old), self.document(new)
        diff = Document(self.read("diff", old, new, "--json"))
        grown = after.totals["bytes"] - before.totals["bytes"]
        assert sum(g["total"] - g["before"]["total"] for g in diff.groups) == grown
        first = self.read("diff", old, new, "--top", 1)
        assert function in first and f"({grown:+,} bytes" in first, first
        self.read("diff", old, new, "--fail-over", grown)
        self.read("diff", old, new, "--fail-over", grown - 1, code=1)
        return diff.through(function)

    def check(self, old, new, function):
        document = self.document(new)
        assert document.totals["unlistedGroups"] == 0
        self.check_views(new, document, function)
        self.check_exports(new, document, function)
        return document, self.check_growth(old, new, function)


def python(session):
    """A leaking library, called through ctypes. python3.11 is loaded at a fixed low address."""
    library = f"{session.bin_dir}/../lib/libend_to_end_leaks.so"
    session.start_program("/usr/bin/python3.11", "-c", PYTHON, library,
                          options=("--start", "--depth", "60"))
    session.step("512")
    old = session.take("old", "--keep-recording")
    session.step("256")
    new = session.take("new")
    document, changed = session.check(old, new, "RememberSessions")
    group, = changed
    assert (group["before"]["count"], group["count"]) == (512, 768), group
    frames = [document.all["frames"][i] for i in document.through("RememberSessions")[0]["stack"]]
    assert frames[0]["file"].endswith("leaks.cpp") and frames[0]["line"] > 0, frames[0]
    assert {"ffi_call", "Py_BytesMain"} <= {f["function"] for f in frames}, frames
    session.close()


def database(session):
    """A database in memory: each page is a block. For arm64 the host has no device: its files are
    only below --sysroot."""
    device = os.environ.get("MEMLEAK_ARM64_PROGRAMS", "")
    if device:
        programs = shutil.copytree(device, session.root + "/device", symlinks=True)
        libraries = f"{programs}/usr/lib/aarch64-linux-gnu:{programs}/lib/aarch64-linux-gnu"
        session.emulator += f" -E LD_LIBRARY_PATH={libraries}"
    session.start_program(f"{programs if device else ''}/usr/bin/sqlite3", ":memory:",
                          options=("--start", "--depth", "60"))
    pages, reports = [], []
    session.process.stdin.write(SQL[0])
    for name, options in (("old", ["--keep-recording"]), ("new", [])):
        session.process.stdin.write(SQL[1])
        pages.append(int(session.answer()))
        reports.append(session.take(name, *options))
    session.close()
    if device:
        sysroot = session.root + "/sysroot"
        os.renames(programs, sysroot + programs)
        os.makedirs(sysroot + "/usr/lib")
        os.symlink("/usr/lib/aarch64-linux-gnu", sysroot + "/usr/lib/aarch64-linux-gnu")
        assert not session.document(reports[1]).through("sqlite3BtreeInsert")
        session.options = ("--sysroot", sysroot)
    document, changed = session.check(*reports, "sqlite3BtreeInsert")
    held = [g["count"] for g in document.groups if g["size"] in PAGE_BYTES]
    assert sum(held) == pages[1], (held, pages)
    grown = sum(g["count"] - g["before"]["count"] for g in changed if g["size"] in PAGE_BYTES)
    assert grown == pages[1] - pages[0] > 10, (grown, pages)


if __name__ == "__main__":
    end_to_end.main(globals(), Session)
