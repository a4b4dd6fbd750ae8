# SPDX-License-Identifier: Apache-2.0
"""Profiles of real programs: nothing is left out, and each library has its own blocks.

usage: profile.py CASE BIN_DIR CONTROLLER
"""

import json
import os
import re
import shutil
import subprocess

import end_to_end

PYTHON = "/usr/bin/python3.11"

# Keeps the syntax trees of the modules of the standard library, about one block for each node.
PARSE = """import ast, glob, os
paths = sorted(glob.glob(os.path.dirname(os.__file__) + "/*.py"))
kept = [ast.parse(open(path, "rb").read()) for path in paths[:130]]
print("ok", flush=True)
input()
"""

BYTEARRAYS = """kept = [bytearray(100 + i % 4901) for i in range(20000)]
print("ok", flush=True)
input()
"""

# Closes each library before it opens the next one at the same address.
PLUGINS = """import _ctypes, ctypes, sys
for path, count in zip(sys.argv[1::2], sys.argv[2::2]):
    plugin = ctypes.CDLL(path)
    plugin.RememberSessions(ctypes.c_size_t(int(count)), ctypes.c_size_t(1000))
    print(ctypes.cast(plugin.RememberSessions, ctypes.c_void_p).value)
    _ctypes.dlclose(plugin._handle)
print("ok", flush=True)
input()
"""


class Session(end_to_end.Session):
    log = False

    def python(self, script, *arguments):
        self.start_program(PYTHON, "-S", "-c", script, *map(str, arguments),
                           options=("--start",))

    def report(self):
        """Reports while the script keeps its blocks, and ends it. Returns the profile."""
        assert self.answer() == "ok"
        self.memleak("report", self.process.pid, "--timeout", 150)
        self.send("")
        assert self.process.wait(60) == 0
        return self.document()

    def document(self):
        document = json.loads(self.memleak("export", self.root, "--format", "json"))
        totals = document["totals"]
        assert totals["unlistedBytes"] == totals["unlistedGroups"] == 0, totals
        assert sum(g["total"] for g in document["groups"]) == totals["bytes"]
        assert all(sum(g["ageCounts"]) == g["count"] for g in document["groups"])
        return document

    def through(self, document, path=None, function=None):
        """Blocks and bytes whose stack has a frame of the library or function."""
        frames = {i for i, f in enumerate(document["frames"])
                  if function in (None, f["function"]) and f["library"] >= 0
                  and path in (None, document["libraries"][f["library"]]["path"])}
        groups = [g for g in document["groups"] if frames.intersection(g["stack"])]
        return sum(g["count"] for g in groups), sum(g["total"] for g in groups)


def sizes(session):
    """A leak of blocks of many sizes is one line, with its whole stack and all blocks."""
    session.python(BYTEARRAYS)
    blocks, held = session.through(session.report(), function="PyByteArray_Resize")
    assert (blocks, held) == (20000, sum(101 + i % 4901 for i in range(20000))), (blocks, held)
    shown = session.memleak("show", session.root, "--top", 1)
    assert re.search(r"^#1 .* 9\d\.\d %  20,000 blocks of 101 B to 4\.9 KiB", shown, re.M), shown
    assert "PyByteArray_Resize" in shown and "_PyEval_EvalFrameDefault" in shown, shown
    assert shown.startswith(f"python3.11 (pid {session.process.pid} on {os.uname().nodename}), ")


def groups(session):
    """A report of more than 60,000 groups is empty. The profile has every block."""
    session.python(PARSE)
    assert session.answer() == "ok"
    out = session.tell("report", "--timeout", 150)
    blocks, stacks = re.search(r"^blocks  ([\d,]+) from ([\d,]+) call stacks$", out, re.M).groups()
    assert int(stacks.replace(",", "")) > 500_000 and not session.groups(), out
    session.send("")
    shown = session.memleak("show", session.root, "--by", "library", "--top", 0)
    assert f" in {blocks} blocks\n" in shown and "Not shown: nothing\n" in shown, shown


def closed(session):
    """A closed library and its successor at the same address have their own blocks."""
    plugins = [f"{session.root}/{name}.so" for name in ("first", "second", "third")]
    for path in plugins:
        shutil.copy(session.bin_dir + "/../lib/libend_to_end_leaks.so", path)
    session.python(PLUGINS, plugins[0], 100, plugins[1], 10, plugins[0], 50, plugins[2], 1)
    places = {session.answer() for _ in range(4)}
    assert len(places) == 1, f"each library is at the same address: {places}"
    document = session.report()
    for path, count in zip(plugins, (150, 10, 1)):
        assert session.through(document, path, "RememberSessions")[0] == count, path


def operators(session):
    """All blocks are recorded if the program uses another allocator, with its own operator new. Each
    block belongs to the function that has requested it."""
    command = session.run_command(session.bin_dir + "/end_to_end_operators",
                                  options=("--start", "--report-at-exit"))
    subprocess.run(command, check=True, timeout=60)
    document = session.document()
    held = {(g["size"], g["maxSize"], g["count"]) for g in document["groups"]
            if document["frames"][g["stack"][0]]["function"] == "Leak()"}
    assert held == {(1001, 1001, 1000), (3003, 3003, 500), (5005, 5005, 250), (576, 576, 125),
                    (7007, 7007, 100)}, held
    assert document["totals"]["blocks"] < 1975 + 100, document["totals"]


if __name__ == "__main__":
    os.environ["PYTHONMALLOC"] = "malloc"
    end_to_end.main(globals(), Session)
