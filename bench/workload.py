# SPDX-License-Identifier: Apache-2.0
"""Runs bench/workload.cpp and other programs under the tracker, for the benchmarks."""

import contextlib
import os
import pathlib
import subprocess
import sys
import time

REPOSITORY = pathlib.Path(__file__).resolve().parent.parent
REPORT_TIMEOUT_S = 60


class Problem(Exception):
    """An error that prevents a row or the whole comparison."""


def add_build_option(parser):
    parser.add_argument("--build", type=lambda text: pathlib.Path(text).resolve(),
                        default=REPOSITORY / "build/native",
                        help="the native build tree (default: build/native)")


def require(path):
    if not path.exists():
        raise Problem(f"{path} is missing; build it: cmake --preset native && "
                      "cmake --build --preset native")
    return path


def say(text):
    """Shows progress on a terminal."""
    if sys.stderr.isatty():
        print(f"\r\033[K{text}", end="", file=sys.stderr, flush=True)


def tracker_environment(build, root, kind, depth):
    """`kind`: the backtrace type, '0' or '1', while recording; None for the idle tracker."""
    root.mkdir()
    environment = {"LD_PRELOAD": str(require(build / "lib/libmemleak_preload.so")),
                   "LD_BIND_NOW": "1", "MEMLEAK_TRACKER_ROOT": str(root),
                   "MEMLEAK_TRACKER_LOG": str(root / "log")}
    if kind is not None:
        (root / "properties").write_text(
            f"vastel.memleak.backtacetype={kind}\nvastel.memleak.backtacemaxnum={depth}\n")
        environment["MEMLEAK_TRACKER_START"] = "0x10"
    return environment


class Setup:
    """One row: a way to start the workload. `root` is the root directory of the tracker."""

    def __init__(self, key, title, program, environment=None, wrapper=(), root=None,
                 base="nothing", depth=12):
        self.key, self.title, self.base, self.depth, self.root = key, title, base, depth, root
        self.command = [*wrapper, str(require(program))]
        self.environment = {**os.environ, **(environment or {})}

    def arguments(self, live, stacks, *more):
        return [*self.command, "--live", str(live), "--stacks", str(stacks),
                "--depth", str(self.depth), *map(str, more)]


def words(line):
    """The key=value words of an output line of the workload."""
    return dict(word.split("=", 1) for word in line.split()[1:])


def churn(setup, live, stacks, threads, seconds):
    """Returns ns per pair in each thread, and pairs per second of all threads."""
    run = subprocess.run(setup.arguments(live, stacks, "--threads", threads, "--seconds", seconds),
                         env=setup.environment, capture_output=True, text=True, errors="replace")
    result = [line for line in run.stdout.splitlines() if line.startswith("result ")]
    if run.returncode != 0 or not result or (setup.root and run.stderr.strip()):
        raise Problem(f"{setup.title}: exit code {run.returncode}: {run.stderr.strip()[-400:]}")
    figures = words(result[0])
    return float(figures["ns_per_pair"]), float(figures["pairs_per_second"])


class Interactive:
    """A running workload that has allocated its blocks and takes commands."""

    def __init__(self, setup, live, stacks, *more):
        self.setup = setup
        self.process = subprocess.Popen(setup.arguments(live, stacks, "--interactive", *more),
                                        env=setup.environment, stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE, text=True, errors="replace",
                                        stderr=None if setup.root else subprocess.DEVNULL)
        ready = self.expect("ready")
        self.pid, self.rss_kib = int(ready["pid"]), int(ready["rss_kib"])
        maps = pathlib.Path(f"/proc/{self.pid}/maps").read_text()
        if setup.root and "libmemleak_tracker.so" not in maps:
            raise Problem(f"{setup.title}: the tracker was not loaded")

    def expect(self, start):
        for line in self.process.stdout:
            if line.startswith(start + " "):
                return words(line)
        raise Problem(f"{self.setup.title}: the workload ended before its '{start}' line")

    def send(self, line):
        self.process.stdin.write(line + "\n")
        self.process.stdin.flush()

    def longest_gap_ms(self):
        """The longest step since the last call."""
        self.send("mark")
        return float(self.expect("mark")["longest_gap_ms"])

    def __enter__(self):
        return self

    def __exit__(self, *_):
        with contextlib.suppress(BrokenPipeError):
            self.send("stop")
        self.process.stdin.close()
        self.process.stdout.read()
        self.process.wait()


def tracker_report(run, controller):
    """Requests a report and returns the seconds until it is complete.

    A report ends recording, and then allocations no longer wait for the locked tables. So recording
    is switched on again at once, to measure the pause of a program that is being recorded.
    """
    log = run.setup.root / "log"
    begun = log.stat().st_size
    begin = time.monotonic()
    with subprocess.Popen([controller, "report", str(run.pid), "--timeout", str(REPORT_TIMEOUT_S)],
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True) as report:
        while b"Start dumping" not in log.read_bytes()[begun:] and report.poll() is None:
            time.sleep(0.0002)
        subprocess.run([controller, "send", str(run.pid), "--word", "0x10"], check=True,
                       stdout=subprocess.DEVNULL)
        output = report.communicate()[0]
    if report.returncode != 0:
        raise Problem(f"memleak report: {output.strip()}")
    return time.monotonic() - begin


def standstill(setup, live, stacks, build):
    """Returns seconds until a report is complete, and the longest step in ms before and during it."""
    with Interactive(setup, live, stacks, "--keep-groups") as run:
        run.send("go")
        time.sleep(1)
        run.longest_gap_ms()
        time.sleep(2)
        quiet = run.longest_gap_ms()
        if setup.root:
            seconds = tracker_report(run, build / "bin/memleak")
        else:
            run.send("dump")
            seconds = float(run.expect("dump")["ms"]) / 1e3
        return {"report_s": seconds, "standstill_ms": run.longest_gap_ms(), "quiet_ms": quiet}


def main(run):
    """Calls `run`, which returns the exit code; 2 if it cannot run."""
    try:
        return run()
    except Problem as problem:
        print(f"{pathlib.Path(sys.argv[0]).name}: {problem}", file=sys.stderr)
        return 2
