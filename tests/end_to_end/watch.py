# SPDX-License-Identifier: Apache-2.0
"""Repeated reports of a recorded program: counts, growth and slopes are exact.

usage: watch.py CASE BIN_DIR CONTROLLER [EMULATOR]
"""

import glob
import json
import os
import signal
import subprocess
import time

import end_to_end
import hooked_kinds

ROUNDS = 5


class Session(hooked_kinds.HookSession):
    log = True

    def run_command(self, *arguments, **options):
        command = super().run_command(*arguments, **options)
        if not self.log:
            at = command.index("--log")
            del command[at:at + 2]
        return command

    def start(self, *options, log=True):
        self.log = log
        super().start(*options)

    def watch(self, name, *options):
        self.directory = f"{self.root}/{name}"
        self.watching = subprocess.Popen(
            [*self.controller, "watch", str(self.process.pid), "-o", self.directory, *options],
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)

    def await_report(self, number):
        end = time.monotonic() + 60
        while time.monotonic() < end:
            if glob.glob(f"{self.directory}/report-{number:04}-*.txt"):
                return
            assert self.watching.poll() is None, self.watching.stdout.read()
            time.sleep(0.02)
        raise AssertionError(f"no report {number}")

    def watched(self, code=0):
        out, _ = self.watching.communicate(timeout=120)
        print(out)
        assert self.watching.returncode == code, out
        with open(self.directory + "/trend.json") as file:
            return out, json.load(file)


def group_of(document, size):
    """The group of the stepper's blocks. The thread that writes the report also allocates some."""
    group, = [g for g in document["groups"] if g["size"] == size and "StepAllocate" in g["stack"]]
    return group


def line_through(seconds, totals):
    """Slope per minute, half-width of its 95 % interval for five points, r2."""
    xs = [s / 60 for s in seconds]
    x0, y0 = sum(xs) / len(xs), sum(totals) / len(totals)
    xx = sum((x - x0) ** 2 for x in xs)
    slope = sum((x - x0) * (y - y0) for x, y in zip(xs, totals)) / xx
    rest = sum((y - y0 - slope * (x - x0)) ** 2 for x, y in zip(xs, totals))
    return (slope, 3.1824 * (rest / (len(xs) - 2) / xx) ** 0.5,
            1 - rest / sum((y - y0) ** 2 for y in totals))


def near(a, b):
    return abs(a - b) <= 1e-6 * max(1, abs(a), abs(b))


def known_growth(session):
    """Blocks are allocated and freed between reports. Each one is counted exactly once."""
    session.start()
    session.tell("on")
    session.step("alloc 40 72")
    session.watch("out", "--every", "2s", "--for", f"{2 * (ROUNDS - 1)}s")
    for number in range(1, ROUNDS + 1):
        session.await_report(number)
        if number < ROUNDS:
            session.step("alloc 100 48")
            session.step("free 30")
    out, document = session.watched()
    assert "already recording, existing records kept" in out, out

    seconds = [r["seconds"] for r in document["reports"]]
    grown, steady = group_of(document, 48), group_of(document, 72)
    counts = [70 * k for k in range(ROUNDS)]
    assert [v["count"] for v in grown["values"]] == counts, grown
    assert grown["growth"] == counts[-1] * 48
    expected = line_through(seconds, [c * 48 for c in counts])
    line = grown["line"]
    assert all(map(near, expected, (line["bytesPerMinute"], line["margin95"], line["rSquared"]))), \
        (expected, line)
    assert [v["count"] for v in steady["values"]] == [40] * ROUNDS and steady["growth"] == 0
    assert "#1  +13.1 KiB" in out and "0 -> 280 blocks of 48 B" in out, out
    assert "1 of " in out, "nothing else grows"

    if os.path.exists(session.directory + "/leak.html"):  # not in builds without the page
        with open(session.directory + "/leak.html", encoding="utf-8") as page:
            assert "StepAllocate" in page.read()

    # Still recording: freed blocks disappear, and new blocks appear.
    session.step("free 200")
    session.step("alloc 5 90")
    session.memleak("report", session.process.pid, "--keep-recording")
    session.step("free 3")
    session.memleak("report", session.process.pid)
    groups = [g for g in session.groups() if len(g.frames) > 2 and "stepper" in g.frames[0][0]]
    assert [end_to_end.kept(groups, size) for size in (48, 72, 90)] == [80, 40, 2]
    session.quit()


def ends(session):
    """An interrupt or a hangup makes a last report. Watching also ends with the process."""
    session.start()
    session.watch("first", "--every", "1h", "--for", "0")
    session.await_report(1)
    session.step("alloc 10 48")
    session.watching.send_signal(signal.SIGINT)
    out, document = session.watched()
    assert "recording on, earlier records kept" in out, out
    assert [v["count"] for v in group_of(document, 48)["values"]] == [0, 10], document

    # A closed terminal also closes the output. It may send the signal twice.
    session.watch("hangup", "--every", "1h", "--for", "0")
    session.await_report(1)
    session.watching.stdout.close()
    for _ in range(2):
        session.watching.send_signal(signal.SIGHUP)
        time.sleep(0.05)
    assert session.watching.wait(60) == 2, "the output is not whole"
    with open(session.directory + "/trend.json") as file:
        assert len(json.load(file)["reports"]) == 2

    # A directory that exists, and a duration with room for only one report.
    session.memleak("watch", session.process.pid, "-o", session.directory, code=2)
    session.memleak("watch", session.process.pid, "-o", session.root + "/x", "--for", "9s", code=2)
    session.watch("second", "--every", "1h", "--for", "0")
    session.await_report(1)
    session.quit()
    out, _ = session.watched()
    assert "has ended" in out and "One report is not enough" in out, out


def check_broken(session, words, *, code=2, reports=1):
    out, document = session.watched(code)
    assert words in document["broken"]["why"] and out.count(words) == 2, out
    assert len(document["reports"]) == reports, document
    assert "Recording continues" not in out, out
    return out, document


def interference(session):
    """Other commands end the recording between two reports. The output says so, and no record is
    lost."""
    report = session.root + "/data/log/reliability/allocations_dump"
    session.start()
    session.tell("on")
    session.step("alloc 20 48")
    for number, (command, words, begins, count) in enumerate((
            ("pause", "recording was paused (command 0x20 at ", "existing records kept", 20),
            ("clear", "all records were dropped (command 0x80 at ", "earlier records kept", 20),
            ("report", "stopped by a report (command 0x40 at ", "earlier records kept", 5))):
        session.watch(str(number), "--every", "1h", "--for", "0")
        session.await_report(1)
        if command == "clear":
            open(session.root + "/log", "w").close()  # a user may empty the log
        session.tell(command)
        session.step("alloc 5 48")  # recorded only after "clear"
        out, document = check_broken(session, words)
        assert begins in out, out
        found = [g["values"][0]["count"] for g in document["groups"] if g["size"] == 48
                 and "StepAllocate" in g["stack"]]
        assert sum(found) == count, document
    # The other report is still there. After a stop, recording starts again with empty tables.
    assert os.path.exists(report) and os.path.exists(report + ".old")
    session.watch("anew", "--every", "1h", "--for", "0")
    session.await_report(1)
    assert os.path.exists(report + ".old")
    session.memleak("report", session.process.pid, "--keep-recording")  # has no effect on the watch
    time.sleep(1.5)
    session.quit()
    assert "tables emptied" in session.watched()[0]


def without_log(session):
    """Existing records are kept, since nothing shows that they are out of date."""
    session.start(log=False)
    session.tell("on")
    session.step("alloc 20 48")
    session.watch("report", "--every", "1h", "--for", "0")
    session.await_report(1)
    session.tell("report", "--keep-recording")
    out, document = check_broken(session, "another command took a report")
    assert "Its log cannot be read" in out and "earlier records kept" in out, out
    assert [v["count"] for v in group_of(document, 48)["values"]] == [20], document

    session.watch("empty", "--every", "3s", "--for", "0")
    session.await_report(1)
    session.tell("pause")
    session.tell("clear")
    check_broken(session, "the report is empty")
    session.quit()


def hooks(session):
    """Commands for native memory do not end or change the recording through hooks. Either the log
    or the slots show it."""
    for session.log in (True, False):
        session.start_mapper()
        pid = session.process.pid
        session.tell("on", "--kind", "mmap", "--lib", "libend_to_end_mapper.so")
        session.step("map 10 65536")
        for command in ("on", "pause", "clear", "report", "report --keep-recording",
                        f"watch -o {session.root}/out"):
            session.memleak(*command.split(), pid, code=2)
        assert not os.path.exists(session.root + "/out")
        session.step("unmap 6")
        session.tell("report", "--kind", "mmap")
        assert session.sizes() == {65536: 4}, session.sizes()
        session.tell("pause")
        session.quit()


if __name__ == "__main__":
    end_to_end.main(globals(), Session)
