# SPDX-License-Identifier: Apache-2.0
"""Compares the tracker's report at exit with valgrind's: blocks and bytes are equal.

usage: valgrind.py CASE BIN_DIR CONTROLLER
"""

import re
import subprocess

import end_to_end

# No random hashes. Perl copies its environment, whose values differ between runs, so the script
# prints their length.
ENVIRONMENT = {"PATH": "/usr/bin:/bin", "PERL_HASH_SEED": "0"}

PERL = """my @cities = map { { name => "city $_", streets => [1 .. $_] } } 1 .. 100;
$_->{of} = \\@cities for @cities;
print length join "", values %ENV;"""

# Exits while its database is in memory.
SQL = """CREATE TABLE t(i INTEGER PRIMARY KEY, x TEXT);
WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 3000)
  INSERT INTO t SELECT i, printf('row %06d', i) FROM n;
CREATE INDEX tx ON t(x);
.exit 3
"""


class Session(end_to_end.Session):
    def tracked(self, *program, **options):
        """Returns the program's output, and the blocks and bytes at exit."""
        command = self.run_command(*program, options=("--start", "--report-at-exit"))
        out = subprocess.run(command, stdout=subprocess.PIPE, timeout=120, **options).stdout
        groups = self.groups()
        return out, (sum(g.count for g in groups), sum(g.total for g in groups))

    def valgrind(self, *program, **options):
        """As tracked. The libraries keep their buffers until exit, as without valgrind."""
        log = self.root + "/valgrind"
        command = ["valgrind", "--run-libc-freeres=no", "--run-cxx-freeres=no", "--log-file=" + log]
        out = subprocess.run([*command, *program], stdout=subprocess.PIPE, timeout=120,
                             **options).stdout
        with open(log) as file:
            held = re.search(r"in use at exit: ([\d,]+) bytes in ([\d,]+) blocks", file.read())
        return out, tuple(int(held[i].replace(",", "")) for i in (2, 1))


def compare(session, *program, environment, text=""):
    """Subtracts the length that the program prints."""
    figures = []
    for run in (session.tracked, session.valgrind):
        out, (blocks, held) = run(*program, env=environment, text=True, input=text)
        figures.append((blocks, held - int(out or 0)))
    assert figures[0] == figures[1] and figures[0][1] > 20000, figures


def database(session):
    compare(session, "/usr/bin/sqlite3", ":memory:", environment=ENVIRONMENT, text=SQL)


def perl(session):
    """Both environments have the same variables. Their values may differ."""
    environment = dict(ENVIRONMENT)
    for run in (session.tracked, session.valgrind):
        out, _ = run("/usr/bin/env", env=dict(environment), text=True)
        environment.update(line.split("=", 1) for line in out.splitlines())
    del environment["LD_PRELOAD"]
    compare(session, "/usr/bin/perl", "-e", PERL, environment=environment)


if __name__ == "__main__":
    end_to_end.main(globals(), Session)
