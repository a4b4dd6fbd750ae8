# SPDX-License-Identifier: Apache-2.0
"""Runs `memleak` on reports and documents that the tests write.

Each test is called with: CASE MEMLEAK [more...]
"""

import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile

PROGRAM, MORE = sys.argv[2], sys.argv[3:]
DIRECTORY = tempfile.TemporaryDirectory(prefix="memleak-readers-")
JAVA_RULE = "=" * 30 + "Java-Native Stack" + "=" * 30 + "\n"


def path(name):
    return f"{DIRECTORY.name}/{name}"


def write(name, content):
    """Writes bytes, a text, or a document. Returns the path."""
    if isinstance(content, dict):
        content = json.dumps(content)
    if isinstance(content, str):
        content = content.encode()
    pathlib.Path(path(name)).write_bytes(content)
    return path(name)


def run(*arguments, code=0):
    """Returns the output, without and with errors. An error is one line."""
    result = subprocess.run([PROGRAM, *map(str, arguments)], capture_output=True, timeout=60)
    out, errors = result.stdout.decode(), result.stderr.decode()
    assert result.returncode == code, f"{arguments}: {result.returncode}\n{out}{errors}"
    return out, out + errors


def read(report, *options):
    """The document of a report."""
    return json.loads(run("export", report, "--format", "json", *options)[0])


def text(groups, *, total=0, number=None, listed=None, java="", end="END"):
    """A report. `groups` are lines without the newline."""
    listed = len(groups) if listed is None else listed
    return (f"Native Heap MemLeak Tracker Version 2.0:\nTotal memory(bytes): {total}\n"
            f"Allocation records: {listed if number is None else number}/{listed}\n"
            "Backtrace size: 10\n\n" + "".join(line + "\n" for line in groups)
            + JAVA_RULE + java + end)


def collapse(name):
    """A run of invalid bytes may be one replacement character or several."""
    return re.sub("\ufffd+", "\ufffd", name)


def document(libraries, frames, groups, /, **totals):
    """A document. `libraries` are pairs of path and build id, `frames` triples of library, offset
    and function. Without `totals`, it lists all groups."""
    native = [g for g in groups if g["kind"] == "native"]
    return {"format": "memleak-profile", "version": 1,
            "report": {"path": "dump", "made": 0, "backtraceSize": 10,
                       "complete": totals.pop("complete", True),
                       "damagedLines": totals.pop("damaged", 0)},
            "totals": {"bytes": sum(g["total"] for g in native), "groups": len(native),
                       "listedGroups": len(native), **totals},
            "libraries": [{"path": p, "buildId": b, "found": True} for p, b in libraries],
            "frames": [{"library": f[0], "offset": f[1], "function": f[2], "file": "", "line": 0,
                        "inlined": False} for f in frames],
            "groups": groups}


def group(kind, size, count, stack, ages=()):
    return {"kind": kind, "size": size, "count": count, "total": size * count, "ages": list(ages),
            "ownAges": True, "stack": stack}


def main(cases):
    os.environ["LC_ALL"] = "C"
    cases[sys.argv[1]]()
