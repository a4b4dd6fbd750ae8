# SPDX-License-Identifier: Apache-2.0
"""Tests of the manual page, the bash completion and the Debian package.

usage: packaging.py CASE SOURCE_DIR BUILD_DIR
"""

import os
import pathlib
import re
import shutil
import subprocess
import sys


def run(*command, **options):
    result = subprocess.run([*map(str, command)], capture_output=True, text=True, timeout=120,
                            **options)
    assert result.returncode == 0, f"{command}: {result.returncode}\n{result.stdout}{result.stderr}"
    assert not result.stderr, result.stderr
    return result.stdout


def manual(source, build):
    """The page formats without warnings and has the options of each command."""
    page = run(source / "scripts/manual", build / "bin/memleak")
    assert page == (build / "packaging/memleak.1").read_text(), "the build made another page"
    shown = run("groff", "-Tascii", "-P-cbou", "-man", "-ww", build / "packaging/memleak.1")
    for name, option in (("run", "--report-at-exit"), ("show", "--older-than"), ("fd", "ACTION")):
        section = shown.partition(f"MEMLEAK {name.upper()}\n")[2].partition("\nMEMLEAK ")[0]
        assert option in section and "Exit codes:" in section, f"{name}: {section}"


def completion(source, build):
    script = source / "packaging/memleak.bash"

    def complete(*words):
        line = " ".join(f"'{word}'" for word in (build / "bin/memleak", *words))
        return run("bash", "-uc", f"source {script}; COMP_WORDS=({line}); COMP_CWORD={len(words)}; "
                   '_memleak; printf "%s\\n" "${COMPREPLY[@]+${COMPREPLY[@]}}"',
                   cwd=script.parent).split()

    assert {"run", "show", "--version"} <= set(complete(""))
    assert complete("wa") == ["watch"]
    for words, expected in (("watch --ou", "--output"), ("on --kind m", "mmap"),
                            ("run --unwind d", "dwarf"), ("show --top 2 memleak.b", "memleak.bash"),
                            ("fd --depth 5 o", "on off"), ("fd on o", ""), ("on --depth ", ""),
                            ("run --start -- --st", ""), ("export -o memleak.b", "memleak.bash")):
        assert complete(*words.split(" ")) == expected.split(), words
    sleeper = subprocess.Popen(["sleep", "60"])
    try:
        assert str(sleeper.pid) not in complete("on", ""), "is not tracked"
    finally:
        sleeper.kill()


def package(_, build):
    """The unpacked package runs a program and shows its report."""
    work = build / "tests/packaging/work"
    shutil.rmtree(work, ignore_errors=True)
    work.mkdir(parents=True)
    subprocess.run(["cpack", "-G", "DEB", "-B", work], cwd=build, check=True, timeout=120,
                   stdout=subprocess.DEVNULL)
    deb, = work.glob("*.deb")
    depends = run("dpkg-deb", "-f", deb, "Depends")
    assert all(library in depends for library in ("libc6", "libdw1", "libstdc++6")), depends
    run("dpkg", "-x", deb, work / "x")
    usr = work / "x/usr"
    for name in ("share/man/man1/memleak.1", "share/bash-completion/completions/memleak"):
        assert (usr / name).is_file(), name
    shared = usr / "share/doc/memleak-tracker"
    named = set(re.findall(r"docs/[\w.-]+", (shared / "README.md").read_text()))
    assert named and all((shared / name).exists() for name in named), named
    memleak = usr / "bin/memleak"
    subprocess.run([memleak, "run", "--start", "--report-at-exit", "--root", work / "root", "--",
                    build / "bin/memleak_example_leak"], check=True, timeout=60,
                   stdout=subprocess.DEVNULL)
    assert "SessionCache::Remember" in run(memleak, "show", work / "root")


if __name__ == "__main__":
    os.environ["LC_ALL"] = "C"
    globals()[sys.argv[1]](*map(pathlib.Path, sys.argv[2:4]))
