# SPDX-License-Identifier: Apache-2.0
"""Repeated reports of a recorded program: counts and growth are exact.

usage: watch.py CASE BIN_DIR CONTROLLER
"""

import base64
import glob
import gzip
import json
import os
import re
import signal
import subprocess
import time

import end_to_end
import hooked_kinds

ROUNDS = 4
SLOW = ("--every", "1h", "--for", "0")


class Session(end_to_end.Session):
    def watch(self, name, *options):
        """Starts to watch. Returns after the first report."""
        self.directory = f"{self.root}/{name}"
        self.watching = subprocess.Popen(
            [*self.controller, "watch", str(self.process.pid), "-o", self.directory, *options],
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        self.await_report(1)

    def await_report(self, number):
        end = time.monotonic() + 60
        while not glob.glob(f"{self.directory}/report-{number:04}-*.txt"):
            assert self.watching.poll() is None, self.watching.stdout.read()
            assert time.monotonic() < end, f"no report {number}"
            time.sleep(0.02)

    def watched(self, code=0):
        out, _ = self.watching.communicate(timeout=120)
        print(out)
        assert self.watching.returncode == code, out
        with open(self.directory + "/trend.json") as file:
            return out, json.load(file)

    def broken(self, why):
        """Watching ends after one report, and the output says why."""
        out, document = self.watched(2)
        assert why in document["broken"]["why"] and out.count(why) == 2, out
        assert len(document["reports"]) == 1 and "Recording continues" not in out, out
        return out, document


def counts(document, size):
    """Counts of the stepper's blocks in each report. The report's own thread allocates too."""
    found = [[v["count"] for v in g["values"]] for g in document["groups"]
             if g["size"] == size and "StepAllocate" in g["stack"]]
    assert len(found) < 2, found
    return found[0] if found else []


def known_growth(session):
    """Blocks are allocated and freed between reports. Each one is counted exactly once."""
    session.start()
    session.tell("on")
    session.step("alloc 40 72")
    session.watch("out", "--every", "2s", "--for", f"{2 * (ROUNDS - 1)}s")
    for number in range(2, ROUNDS + 1):
        session.step("alloc 100 48")
        session.step("free 30")
        session.await_report(number)
    out, document = session.watched()
    assert "already recording, existing records kept" in out, out
    # One line for both sizes: they come from one call site.
    assert counts(document, 48) == [40 + 70 * k for k in range(ROUNDS)]
    assert "#1  +9.8 KiB" in out and "40 -> 250 blocks of 48 B to 72 B" in out, out
    assert "1 of " in out, "nothing else grows"
    if os.path.exists(session.directory + "/leak.html"):  # not in builds without the page
        with open(session.directory + "/leak.html", encoding="utf-8") as page:
            packed = re.search('id="profile">(.*?)<', page.read())[1]
        assert b"StepAllocate" in gzip.decompress(base64.b64decode(packed))

    session.quit()


def ends(session):
    """An interrupt or a hangup makes a last report. Watching also ends with the process."""
    session.start()
    session.watch("first", *SLOW)
    session.step("alloc 10 48")
    session.watching.send_signal(signal.SIGINT)
    out, document = session.watched()
    assert "recording on, tables emptied" in out, out
    assert counts(document, 48) == [0, 10], document

    # A closed terminal also closes the output. It may send the signal twice.
    session.watch("hangup", *SLOW)
    session.watching.stdout.close()
    for _ in range(2):
        session.watching.send_signal(signal.SIGHUP)
        time.sleep(0.05)
    assert session.watching.wait(60) == 2, "the output is not complete"
    with open(session.directory + "/trend.json") as file:
        assert len(json.load(file)["reports"]) == 2

    # A directory that exists, and a duration with room for only one report.
    session.memleak("watch", session.process.pid, "-o", session.directory, code=2)
    session.memleak("watch", session.process.pid, "-o", session.root + "/x", "--for", "9s", code=2)
    session.watch("second", *SLOW)
    session.quit()
    out, _ = session.watched()
    assert "has ended" in out and "One report is not enough" in out, out


def interference(session):
    """Other commands end the recording between two reports. The output says so, and no record is
    lost."""
    report = session.root + "/data/log/reliability/allocations_dump"
    session.start()
    session.tell("on")
    session.step("alloc 20 48")
    for command, why, begins, count in (
            ("pause", "recording was paused (native pause (0x20) at ", "existing records kept", 20),
            ("clear", "all records were dropped (native clear (0x80) at ", "earlier records kept", 20),
            ("report", "stopped by a report (native report (0x40) at ", "existing records kept", 5)):
        session.watch(command, *SLOW)
        session.tell(command)
        session.step("alloc 5 48")  # recorded only after "clear"
        out, document = session.broken(why)
        assert begins in out, out
        assert counts(document, 48) == [count], document
    # The other report is still there. After a stop, recording starts again with empty tables.
    assert os.path.exists(report) and os.path.exists(report + ".old")
    session.watch("anew", *SLOW)
    assert os.path.exists(report + ".old")
    session.memleak("report", session.process.pid, "--keep-recording")  # has no effect on the watch
    time.sleep(1.5)
    session.quit()
    assert "tables emptied" in session.watched()[0]


def hooks(session):
    """Commands for native memory do not end or change the recording through hooks."""
    session.start()
    pid = session.process.pid
    session.tell("on", *hooked_kinds.MMAP)
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
