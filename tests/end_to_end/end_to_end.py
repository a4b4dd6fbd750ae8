# SPDX-License-Identifier: Apache-2.0
"""End-to-end tests of loader, tracker, control signal, report and reader, on known leaks.

usage: end_to_end.py CASE BIN_DIR CONTROLLER [EMULATOR]

BIN_DIR holds the programs, CONTROLLER is the memleak command, EMULATOR runs programs of another
architecture. Exit code 0 if the case passes.
"""

import collections
import contextlib
import os
import re
import resource
import shlex
import subprocess
import sys
import tempfile
import time

GROUP = re.compile(r"^sz (\d+) (\d+) num (\d+) time ([\d ]*) bt (.*)$")


class Group:
    def __init__(self, match):
        self.size, self.total, self.count = (int(match[i]) for i in (1, 2, 3))
        self.frames = re.findall(r"\[([^\[\]]*)\+0x([0-9a-f]+)\]", match[5])


class Session:
    def __init__(self, bin_dir, controller, emulator=""):
        self.bin_dir = bin_dir
        self.controller = shlex.split(controller)
        self.emulator = emulator
        self.root = tempfile.mkdtemp(prefix="memleak-e2e-")
        self.process = None

    def run_command(self, *program, options=(), root=None):
        command = [*self.controller, "run", "--root", root or self.root]
        command += ["--libdir", self.bin_dir + "/../lib", "--log", self.root + "/log", *options]
        if self.emulator:
            command += ["--emulator", self.emulator]
        return [*command, "--", *program]

    def start_program(self, *program, **options):
        self.process = subprocess.Popen(
            self.run_command(*program, **options), stdin=subprocess.PIPE, stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT, text=True, bufsize=1)

    def start(self, *options, root=None):
        self.start_program(self.bin_dir + "/end_to_end_stepper", options=options, root=root)
        self.step("alloc 1 10")  # returns when the program is ready
        self.step("free 1")

    def send(self, line):
        self.process.stdin.write(line + "\n")

    def answer(self):
        line = self.process.stdout.readline().strip()
        assert line, "the program has gone"
        return line

    def step(self, line):
        self.send(line)
        answer = self.answer()
        assert answer == "ok", answer

    def memleak(self, *arguments, code=0):
        result = subprocess.run([*self.controller, *map(str, arguments)], capture_output=True,
                                text=True, timeout=120)
        assert result.returncode == code, f"{arguments}: {result.returncode} {result.stderr}"
        return result.stdout

    def tell(self, command, *arguments, pid=None):
        return self.memleak(command, pid or self.process.pid, *arguments)

    def refused(self, *words, pid=None, prefix=()):
        """Runs a command that must be refused. Returns its line on stderr."""
        result = subprocess.run([*prefix, *self.controller, *words, str(pid or self.process.pid)],
                                capture_output=True, text=True, timeout=100)
        assert result.returncode == 2 and result.stderr.count("\n") == 1, result
        return result.stderr

    def groups(self, root=None):
        path = (root or self.root) + "/data/log/reliability/allocations_dump"
        with open(path) as report:
            text = report.read()
        assert text.endswith("END"), text[-200:]
        found = [Group(m) for m in map(GROUP.match, text.splitlines()) if m]
        total = int(re.search(r"^Total memory\(bytes\): (\d+)$", text, re.M)[1])
        assert total == sum(g.total for g in found), "the total is the sum of the groups"
        return found

    def records(self):
        """The number of recorded live blocks."""
        found = re.search(r"^records +([\d,]+) live blocks$", self.tell("status"), re.M)
        return int(found[1].replace(",", ""))

    def sizes(self, root=None):
        """The report's blocks as {size: count}."""
        found = collections.Counter()
        for group in self.groups(root):
            found[group.size] += group.count
        return found

    def frames(self):
        """The libraries of the innermost frames."""
        return {group.frames[0][0].rpartition("/")[2] for group in self.groups()}

    def innermost(self, group, root=None):
        """The function of the group's innermost frame, as `show` prints it."""
        shown = self.memleak("show", root or self.root, "--top", 1000)
        # The profile has one line for all sizes of a stack.
        count = sum(g.count for g in self.groups(root) if g.frames == group.frames)
        found = re.search(fr"^#.*\b{count:,} block.*\n(.*)", shown, re.M)
        assert found, f"no line of {count} blocks in:\n{shown}"
        return found[1]

    def close(self):
        """Ends a program that reads its input to the end."""
        self.process.stdin.close()
        assert self.process.wait(60) == 0

    def quit(self):
        self.send("quit")
        assert self.process.wait(30) == 0


def known_leak(session, *options):
    """The example's leak, recorded from before main until exit: counts, bytes and functions."""
    subprocess.run(
        session.run_command(session.bin_dir + "/memleak_example_leak",
                            options=("--start", "--report-at-exit", *options)),
        check=True, timeout=120, stdout=subprocess.DEVNULL)
    groups = session.groups()
    for size, count, function in ((48, 1000, "SessionCache::Remember"), (4096, 100, "WriteTrace")):
        match = [g for g in groups if (g.size, g.count) == (size, count)]
        assert len(match) == 1, [(g.size, g.count) for g in groups]
        assert match[0].total == size * count
        shown = session.innermost(match[0])
        assert function in shown, shown


def known_leak_fp(session):
    known_leak(session, "--unwind", "fp")


def known_leak_dwarf(session):
    known_leak(session, "--unwind", "dwarf")


def from_outside(session):
    """Switches recording on and off twice in a running process."""
    session.start()
    session.step("alloc 500 100")  # before recording starts: not recorded
    session.tell("on")
    session.step("alloc 1000 48")
    before = session.records()
    session.step("free 400")
    assert session.records() == before - 400
    session.tell("report")
    group, = [g for g in session.groups() if g.size == 48]
    assert (group.count, group.total) == (600, 600 * 48)
    assert "StepAllocate" in session.innermost(group)
    session.step("alloc 10 48")  # not recording
    session.tell("on")  # clears the tables
    session.step("alloc 7 72")
    session.tell("clear")
    session.step("alloc 9 72")
    session.tell("pause")
    session.step("alloc 8 300")
    session.step("free 9")  # only the last one is recorded
    session.tell("on", "--keep")
    session.step("alloc 5 90")
    session.tell("report")
    sizes = session.sizes()
    assert [sizes[s] for s in (48, 72, 300, 90)] == [0, 8, 0, 5], sizes
    session.quit()


def forked_child(session):
    """A child is forked during recording. It has the parent's records and writes its own report.
    Both share a root directory."""
    session.start("--start")
    session.step("alloc 20 120")
    fifo = session.root + "/fifo"
    os.mkfifo(fifo)
    session.send("fork " + fifo)
    child = int(session.answer())
    assert session.answer() == "ok"
    assert "a forked child, has written no report" in session.refused("show", pid=child)
    with open(fifo, "w", buffering=1) as commands:
        commands.write("alloc 30 130\n")
        assert session.answer() == "ok"
        session.step("alloc 40 140")
        parent = session.process.pid
        for pid, other, expected in ((child, parent, [20, 30, 0]), (parent, child, [20, 0, 40])):
            session.tell("report", pid=pid)
            sizes = session.sizes()
            assert [sizes[s] for s in (120, 130, 140)] == expected, sizes
            assert f"(pid {pid} on " in session.tell("show", pid=pid)
            assert f" is of process {pid}; give that path" in session.refused("show", pid=other)
        commands.write("quit\n")
    session.quit()


def churn(session):
    """Two threads allocate while commands repeat. The records are correct afterwards."""
    session.start()
    session.send("churn 2 4000")
    end = time.monotonic() + 3.5
    while time.monotonic() < end:
        for words in (("on",), ("on", "--keep"), ("pause",), ("clear",), ("on",), ("report",)):
            session.memleak(words[0], session.process.pid, *words[1:])
    assert session.answer() == "ok"
    session.tell("on")
    session.step("churn 2 300")
    session.step("alloc 25 90")
    session.tell("report")
    sizes = session.sizes()
    assert (sizes[90], sizes[700]) == (25, 0), sizes  # the blocks of 700 bytes were freed
    session.quit()


@contextlib.contextmanager
def full_disk(session, root):
    """Fills the file system of the root directory."""
    with open(root + "/filler", "wb", buffering=0) as filler, contextlib.suppress(OSError):
        while True:
            filler.write(bytes(4096))
    yield "No space left on device"
    os.remove(root + "/filler")


@contextlib.contextmanager
def limited(session, kind, least, reason):
    limit = resource.prlimit(session.process.pid, kind)
    resource.prlimit(session.process.pid, kind, (least, limit[1]))
    yield reason
    resource.prlimit(session.process.pid, kind, limit)


def no_descriptor(session, _):
    return limited(session, resource.RLIMIT_NOFILE, 3, "Too many open files")


def small_files(session, _):
    return limited(session, resource.RLIMIT_FSIZE, 100, "File too large")


def shortage(session):
    """The report has no room or no descriptor. The controller gives the reason at once, the
    program continues, and the next report has all records."""
    root, shortages = session.root + "/small", [no_descriptor, small_files]
    os.mkdir(root)
    if os.geteuid() == 0:
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=1m,mode=700", "none", root], check=True)
        shortages.insert(0, full_disk)  # later, an old report that is replaced makes room
    try:
        session.start("--start", root=root)
        for number, shorten in enumerate(shortages, 1):
            session.step("alloc 50 200")
            with shorten(session, root) as reason:
                start = time.monotonic()
                refused = session.refused("report")
                assert reason in refused and time.monotonic() - start < 20, refused
            session.tell("report", "--keep-recording")
            assert session.sizes(root)[200] == 50 * number
            session.tell("on", "--keep")
        session.quit()
    finally:
        if full_disk in shortages:
            subprocess.run(["umount", "--lazy", root], check=True)


def main(cases, session_type):
    case, *arguments = sys.argv[1:]
    session = session_type(*arguments)
    try:
        cases[case](session)
    finally:
        if session.process is not None and session.process.poll() is None:
            session.process.kill()
        if os.path.exists(session.root + "/log"):
            print("".join(open(session.root + "/log").readlines()[-20:]))
    subprocess.run(["rm", "-r", session.root], check=True)


if __name__ == "__main__":
    main(globals(), Session)
