# SPDX-License-Identifier: Apache-2.0
"""Compares the tracker's report at exit with valgrind's for the same program.

usage: valgrind.py CASE BIN_DIR CONTROLLER
"""

import collections
import re
import subprocess

import end_to_end

# No random hashes, and malloc in place of python's own allocator. Perl copies its environment,
# whose values differ between runs, so the script prints their length.
ENVIRONMENT = {"PATH": "/usr/bin:/bin", "PERL_HASH_SEED": "0", "PYTHONHASHSEED": "0",
               "PYTHONMALLOC": "malloc"}

PERL = """my @cities = map { { name => "city $_", streets => [1 .. $_] } } 1 .. 100;
$_->{of} = \\@cities for @cities;
print length join "", values %ENV;"""

PYTHON = """import json, os
kept = [json.loads('{"a": [1, "two"]}') for i in range(1000)]"""

# Exits while its database is in memory.
SQL = """CREATE TABLE t(i INTEGER PRIMARY KEY, x TEXT);
WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 3000)
  INSERT INTO t SELECT i, printf('row %06d', i) FROM n;
CREATE INDEX tx ON t(x);
.exit 3
"""

RECORD = re.compile(r"([\d,]+) bytes in [\d,]+ blocks are .* in loss record")
FRAME = re.compile(r"   (?:at|by) 0x\w+: (\S+)")


def number(text):
    return int(text.replace(",", ""))


def sum_up(stacks):
    """Adds up bytes by function from pairs of a stack and bytes. Recursion counts once."""
    sums = collections.Counter()
    for stack, held in stacks:
        sums.update(dict.fromkeys(stack, held))
    return sums


class Session(end_to_end.Session):
    """Runs programs with the tracker or with valgrind. Both set `out` to the program's output and
    return the blocks and bytes at exit, and the bytes by function."""

    def run(self, command, text, env):
        self.out = subprocess.run(command, input=text, env=env, text=True, timeout=120,
                                  stdout=subprocess.PIPE).stdout

    def tracked(self, *command, text="", env=None):
        run = self.run_command("", "--start", "--report-at-exit", "--depth", "8")
        self.run([*run[:-1], *command], text, env)
        lines = self.memleak("export", self.root, "--format", "folded").splitlines()
        stacks = [line.split(" ") for line in lines]
        groups = self.groups()
        return ((sum(g.count for g in groups), sum(g.total for g in groups)),
                sum_up((stack.split(";"), int(held)) for stack, held in stacks))

    def valgrind(self, *command, text="", env=None):
        log = self.root + "/valgrind"
        # Programs keep the libraries' buffers until exit, as without valgrind.
        self.run(["valgrind", "--leak-check=full", "--show-leak-kinds=all",
                  "--run-libc-freeres=no", "--run-cxx-freeres=no", "--log-file=" + log, *command],
                 text, env)
        with open(log) as file:
            said = file.read()
        held = re.search(r"in use at exit: ([\d,]+) bytes in ([\d,]+) blocks", said)
        records = [(RECORD.search(r), FRAME.findall(r)) for r in said.split("== \n")]
        return ((number(held[2]), number(held[1])),
                sum_up((stack, number(head[1])) for head, stack in records if head))


def every_way(session):
    """Every allocation function, with reachable and lost blocks. docs/accuracy.md explains the
    differences."""
    program = session.bin_dir + "/end_to_end_leaks"
    (blocks, held), ours = session.tracked(program)
    (their_blocks, their_held), theirs = session.valgrind(program)
    for function in ("RememberSessions", "Lose"):
        assert ours[function] == theirs[function] > 0, (function, ours, theirs)
    rounded = 1024 - 1005  # operator new rounds up to a multiple of 256
    assert ours["KeepReachable"] == theirs["KeepReachable"] + rounded, (ours, theirs)
    thread = ours["UseThread"] - theirs["UseThread"]
    assert thread >= 0 and thread % 16 == 0, thread  # a slot for each library with thread-locals
    pool = 72704  # libstdc++ allocates it before recording starts
    late = ours["FillCache"]  # freed after the report
    assert (late, theirs["FillCache"]) == (2022, 0)
    assert (blocks, held) == (their_blocks, their_held - pool + late + rounded + thread)


def compare(session, *command, text=""):
    """Blocks and bytes are equal. Both environments have the same variables, but their values may
    differ. A program that copies them prints their length, which is subtracted."""
    environment = dict(ENVIRONMENT)
    runs = (session.tracked, session.valgrind)
    for run in runs:
        run("/usr/bin/env", env=dict(environment))
        environment.update(line.split("=", 1) for line in session.out.splitlines())
    del environment["LD_PRELOAD"]
    figures = []
    for run in runs:
        (blocks, held), _ = run(*command, text=text, env=environment)
        figures.append((blocks, held - int(session.out or 0)))
    assert figures[0] == figures[1] and figures[0][1] > 20000, figures


def database(session):
    compare(session, "/usr/bin/sqlite3", ":memory:", text=SQL)


def perl(session):
    compare(session, "/usr/bin/perl", "-e", PERL)


def python(session):
    compare(session, "/usr/bin/python3.11", "-S", "-c", PYTHON)


if __name__ == "__main__":
    end_to_end.main(globals(), Session)
