# SPDX-License-Identifier: Apache-2.0
"""Compares the tracker's profile at exit with valgrind's summary: blocks and bytes are equal.

usage: valgrind.py CASE BIN_DIR CONTROLLER

The case `table` prints the table of docs/accuracy.md.
"""

import json
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
        totals = json.loads(self.memleak("export", self.root, "--format", "json"))["totals"]
        return out, (totals["blocks"], totals["bytes"])

    def valgrind(self, *program, **options):
        """As tracked. The libraries keep their buffers until exit, as without valgrind."""
        log = self.root + "/valgrind"
        command = ["valgrind", "--run-libc-freeres=no", "--run-cxx-freeres=no", "--log-file=" + log]
        out = subprocess.run([*command, *program], stdout=subprocess.PIPE, timeout=120,
                             **options).stdout
        with open(log) as file:
            held = re.search(r"in use at exit: ([\d,]+) bytes in ([\d,]+) blocks", file.read())
        return out, tuple(int(held[i].replace(",", "")) for i in (2, 1))


# The programs of the table, with their input. They run in a directory with a text file, an XML file
# and a git repository.
PROGRAMS = {
    "sqlite3": (["sqlite3", ":memory:"], SQL),
    "grep": (["grep", "-E", "(word|line) [0-9]*7$", "text"], ""),
    "sort": (["sort", "-k", "2,2n", "-u", "text"], ""),
    "tar": (["tar", "-cf", "/dev/null", "text", "data.xml", ".git"], ""),
    "openssl": (["openssl", "dgst", "-sha256", "text"], ""),
    "git": (["git", "log", "--stat"], ""),
    "gcc": (["gcc", "-print-search-dirs"], ""),
    "vim": (["vim", "-u", "NONE", "-es", "-c", "%s/word/thing/|q!", "text"], ""),
    "perl": (["perl", "-e", PERL], ""),
    "xmllint": (["xmllint", "--noout", "data.xml"], ""),
}


def prepare(session):
    """Makes the files that the programs read."""
    for name, text in (("text", "".join(f"word {i * 7919 % 10007}\n" for i in range(10000))),
                       ("data.xml", "<a>" + "<b c='1'>text</b>" * 1000 + "</a>\n")):
        with open(f"{session.root}/{name}", "w") as file:
            file.write(text)
    subprocess.run("git init -q; git add text; git -c user.name=a -c user.email=a@b commit -qm text",
                   cwd=session.root, shell=True, check=True)


def figures(session, name):
    """Blocks and bytes of the tracker and of valgrind. Subtracts the length that perl prints."""
    command, text = PROGRAMS[name]
    environment = dict(ENVIRONMENT)
    if name in ("perl", "vim", "git", "gcc"):  # they copy the environment
        for run in (session.tracked, session.valgrind):
            out, _ = run("/usr/bin/env", env=dict(environment), text=True)
            environment.update(line.split("=", 1) for line in out.splitlines())
        del environment["LD_PRELOAD"]
    found = []
    for run in (session.tracked, session.valgrind):
        out, (blocks, held) = run(command[0] if "/" in command[0] else "/usr/bin/" + command[0],
                                  *command[1:], env=environment, text=True, input=text,
                                  cwd=session.root)
        found.append((blocks, held - (int(out) if name == "perl" else 0)))
    return found


def compare(session, name):
    prepare(session)
    ours, theirs = figures(session, name)
    assert ours == theirs and ours[1] > 0, (ours, theirs)


def table(session):
    prepare(session)
    print("| program | the tracker | valgrind | difference |\n|---|---|---|---|")
    for name in PROGRAMS:
        ours, theirs = figures(session, name)
        texts = [f"{held:,} bytes in {blocks:,} blocks" for blocks, held in (ours, theirs)]
        difference = ("none" if ours == theirs else
                      f"{ours[1] - theirs[1]:+,} bytes, {ours[0] - theirs[0]:+,} blocks")
        print(f"| `{name}` | {texts[0]} | {'the same' if ours == theirs else texts[1]} "
              f"| {difference} |", flush=True)


def database(session):
    compare(session, "sqlite3")


def grep(session):
    compare(session, "grep")


def perl(session):
    """Both environments have the same variables. Their values may differ."""
    compare(session, "perl")


if __name__ == "__main__":
    end_to_end.main(globals(), Session)
