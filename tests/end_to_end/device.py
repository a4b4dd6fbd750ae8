# SPDX-License-Identifier: Apache-2.0
"""Tests of the controller for devices. The simulated device is a directory.

usage: device.py CASE BIN_DIR CONTROLLER

CONTROLLER is the host's memleak command. It starts programs and reads reports.
"""

import os
import shutil
import subprocess
import time

import end_to_end
import hooked_kinds

LOG = "logcat -s MemLeak.Native"


class Session(end_to_end.Session):
    def device(self, command, *arguments, code=0):
        """Runs the controller for devices and returns its output. It cannot read the process's
        log."""
        environment = {**os.environ, "MEMLEAK_TRACKER_ROOT": self.root}
        words = [f"{self.bin_dir}/memleak_device", *command.split(), str(self.process.pid),
                 *map(str, arguments)]
        result = subprocess.run(words, capture_output=True, text=True, env=environment, timeout=60)
        assert result.returncode == code, f"{words}: {result.returncode} {result.stderr}"
        if code == 2:
            assert result.stderr.startswith("memleak: ") and result.stderr.count("\n") == 1
        time.sleep(0.3)  # the process does not answer commands
        return result.stdout + result.stderr

    def check_property(self, name, value):
        with open(self.root + "/properties") as file:
            assert f"{name}={value}\n" in file.readlines()


def commands(session):
    """Every command. Where one is refused, the message says what to do."""
    shutil.copy(session.bin_dir + "/../lib/libfdtrack_fixture.so", session.root + "/libfdtrack.so")
    os.environ["LD_LIBRARY_PATH"] = session.root
    session.start("--unwind", "fp")
    text = session.device("status")
    assert f"unknown (see: {LOG})" in text and f"\nlog         {LOG}\n" in text, text
    assert "[system properties]" in text and "report      none yet" in text, text

    session.device("on", "--depth", 24)
    session.check_property("vastel.memleak.backtacemaxnum", 24)
    session.step("alloc 30 120")
    session.device("pause")
    session.step("alloc 4 130")
    session.device("on", "--keep")
    session.step("alloc 5 140")
    report = session.device("report")
    path = session.root + "/data/log/reliability/allocations_dump"
    assert f"report  {path}\n" in report and f"\nfetch   adb pull {path}\n" in report, report
    sizes = session.sizes()
    assert [sizes[s] for s in (120, 130, 140)] == [30, 0, 5]

    session.device("send", "--word", "0x10")
    session.step("alloc 6 150")
    session.device("clear")
    session.step("alloc 7 160")
    session.device("report")
    sizes = session.sizes()
    assert [sizes[s] for s in (150, 160)] == [0, 7]

    library = hooked_kinds.LIBRARY
    assert library in session.device("libs")
    on = session.device("on", *hooked_kinds.MMAP)
    assert "recording requested (sent; " in on and f"requested  {library}: " in on, on
    session.check_property("persist.sys.memleak.hookLib", library)
    session.step("map 20 65536")
    session.device("report", "--kind", "mmap")
    assert session.sizes() == {65536: 20}, session.sizes()

    assert "switch it on first" in session.device("fd off", code=2)
    text = session.device("fd on", "--depth", 16)
    assert "are tracked" in text and LOG in text and text.count("\n") == 1, text
    session.device("fd off")

    with open(session.root + "/refused", "w", encoding="utf-8"):
        text = session.device("on", "--depth", 25, code=2)
    assert "vastel.memleak.backtacemaxnum" in text and "as root: setprop" in text, text
    for words in ("run", "show"):
        assert "unknown command" in session.device(words, code=2)
    session.quit()


if __name__ == "__main__":
    end_to_end.main(globals(), Session)
