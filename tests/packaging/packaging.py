"""The manual page, the completion of bash, and the Debian package.

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


def words_of_help(memleak):
    """{command: options} as --help prints them."""
    commands = re.findall(r"^  (\w+) ", run(memleak, "--help").partition("Subcommands:")[2]
                          .partition("\n\n")[0], re.M)
    return {name: re.findall(r"^  .*?(--[\w-]+)", run(memleak, name, "--help")
                             .partition("Options:")[2].partition("\n\n")[0], re.M)
            for name in commands}


def manual(source, build):
    """Page and completion are what the help texts make of them, whole and without warnings."""
    memleak = build / "bin/memleak"
    run(source / "scripts/manual", "--check", memleak)
    shown = run("groff", "-Tascii", "-P-cbou", "-man", "-ww", source / "packaging/memleak.1")
    found = words_of_help(memleak)
    assert {"run", "on", "report", "show", "watch"} <= set(found), found
    assert {"--start", "--report-at-exit", "--libdir"} <= set(found["run"]), found["run"]
    for name, options in found.items():
        section = shown.partition(f"MEMLEAK {name.upper()}\n")[2].partition("\nMEMLEAK ")[0]
        missing = [option for option in options if option not in section]
        assert not missing, f"{name}: {missing}\n{section}"


def complete(script, *words):
    """What bash offers for the last of the words."""
    line = " ".join(f"'{word}'" for word in words)
    text = run("bash", "-uc", f"source {script}; COMP_WORDS=({line}); COMP_CWORD={len(words) - 1}; "
               'COMPREPLY=(); _memleak; printf "%s\\n" "${COMPREPLY[@]+${COMPREPLY[@]}}"',
               cwd=script.parent)
    return text.split()


def completion(source, build):
    script = source / "packaging/memleak.bash"
    found = words_of_help(build / "bin/memleak")
    assert set(found) <= set(complete(script, "memleak", "")), complete(script, "memleak", "")
    assert complete(script, "memleak", "wa") == ["watch"]
    for name, options in found.items():
        assert set(options) <= set(complete(script, "memleak", name, "-")), name
    assert complete(script, "memleak", "on", "--kind", "m") == ["mmap"]
    assert complete(script, "memleak", "run", "--unwind", "") == ["fp", "dwarf"]
    assert complete(script, "memleak", "show", "--sort", "c") == ["count"]
    assert complete(script, "memleak", "show", "memleak.b") == ["memleak.bash"]
    assert complete(script, "memleak", "fd", "--depth", "5", "o") == ["on", "off"]
    assert complete(script, "memleak", "fd", "on", "o") == []
    # Behind "--" stands another program's command line.
    assert complete(script, "memleak", "run", "--start", "--", "--st") == []
    sleeper = subprocess.Popen(["sleep", "60"])
    try:
        assert str(sleeper.pid) not in complete(script, "memleak", "on", ""), "is not tracked"
    finally:
        sleeper.kill()


def fields_of(package):
    return dict(re.findall(r"^ ([A-Z][\w-]*): (.*)$", run("dpkg", "-I", package), re.M))


def package(_, build):
    """The package from the build to a report, without being installed."""
    work = build / "tests/packaging/work"
    shutil.rmtree(work, ignore_errors=True)
    work.mkdir(parents=True)
    subprocess.run(["cpack", "-G", "DEB", "-B", work], cwd=build, check=True, timeout=120,
                   stdout=subprocess.DEVNULL)
    deb, = work.glob("*.deb")
    fields = fields_of(deb)
    assert fields["Package"] == "memleak-tracker" and fields["Section"] == "devel", fields
    assert fields["Version"] and fields["Architecture"] in deb.name, fields
    for library in ("libc6", "libdw1", "libstdc++6"):
        assert library in fields["Depends"], fields["Depends"]

    run("dpkg", "-x", deb, work / "x")
    usr = work / "x/usr"
    files = {str(path.relative_to(usr)) for path in usr.rglob("*") if path.is_file()}
    assert {"bin/memleak", "lib/memleak/libmemleak_preload.so", "lib/memleak/libmemleak_tracker.so",
            "share/man/man1/memleak.1", "share/bash-completion/completions/memleak"} <= files, files
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
