#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Compares stacks at random places of real programs: call-frame information and C++ runtime.

usage: sampled_programs.py PROGRAM SAMPLER CASES [EMULATOR]

PROGRAM is stack_cases, sqlite3, python3, cc1plus, clang or node. SAMPLER and CASES are the files
built from stack_sampler.cpp and stack_cases.cpp. The program runs until SAMPLED_PLACES places
(3000, or 1000 if emulated) are compared. MEMLEAK_ARM64_PROGRAMS names unpacked arm64 packages. Prints the number of
places. Exit code 0 if all stacks are equal, 77 if the program is not installed.
"""

import glob
import os
import re
import shutil
import subprocess
import sys
import tempfile

SQL = """create table t(a, b);
with recursive c(x) as (select 1 union all select x + 1 from c where x < 50000)
  insert into t select x, hex(randomblob(8)) from c;
create index i on t(b); select count(*) from t where b like 'A%'; select max(b) from t group by a % 7;
"""
PYTHON = """
import hashlib, json, random, re
data = [{"a": i, "b": [str(j) for j in range(i % 10)]} for i in range(2000)]
for _ in range(20):
    text = json.dumps(data)
    json.loads(text), re.findall(r'"a": (\\d+)5', text), hashlib.sha256(text.encode()).hexdigest()
    sorted(random.random() for _ in range(10000))
"""
CPP = """
#include <functional>
#include <iostream>
#include <map>
#include <string>
#include <vector>
int main() {
  std::map<std::string, std::vector<std::function<int(int)>>> functions;
  functions["a"].push_back([](int i) { return i; });
  std::cout << functions.size() << functions["a"][0](1);
}
"""
JAVASCRIPT = """
const zlib = require('zlib');
for (let n = 0; n < 40; n++) {
  const map = new Map();
  for (let i = 0; i < 10000; i++) map.set('k' + i, {a: i, b: [i]});
  JSON.parse(JSON.stringify([...map.values()]));
  zlib.gzipSync(Buffer.alloc(100000, 'abc'));
}
"""
CC1PLUS = (glob.glob("/usr/lib/gcc/x86_64-linux-gnu/*/cc1plus") or [""])[0]
# The command line of each program, and the contents of its input file.
PROGRAMS = {
    "sqlite3": (["/usr/bin/sqlite3", ":memory:", ".read FILE"], SQL),
    "python3": (["/usr/bin/python3.11", "FILE"], PYTHON),
    "cc1plus": ([CC1PLUS, "-O2", "-quiet", "-D_GNU_SOURCE", "-imultiarch", "x86_64-linux-gnu",
                 "FILE", "-o", "/dev/null"], CPP),
    "clang": (["/usr/bin/clang++", "-O2", "-S", "-x", "c++", "FILE", "-o", "/dev/null"], CPP),
    "node": ([shutil.which("node") or "", "FILE"], JAVASCRIPT),
    "stack_cases": ([], ""),
}
# The time between interruptions in microseconds, and the number of single steps after each. clang
# blocks the signal for single steps. stack_cases interrupts itself.
INTERRUPTIONS = {"clang": ("1000", "0"), "stack_cases": ("0", "2000")}


def run(command, settings, emulator):
    if not emulator:
        subprocess.run(command, env={**os.environ, **settings}, stdout=subprocess.DEVNULL,
                       check=True, timeout=170)
        return
    unpacked = os.environ["MEMLEAK_ARM64_PROGRAMS"]
    libraries = [f"{unpacked}/{place}/aarch64-linux-gnu" for place in ("lib", "usr/lib")]
    settings["LD_LIBRARY_PATH"] = ":".join(libraries)
    options = [word for name, value in settings.items() for word in ("-E", f"{name}={value}")]
    subprocess.run([*emulator, *options, *command],
                   stdout=subprocess.DEVNULL, check=True, timeout=170)


def main():
    program, sampler, cases, *emulator = sys.argv[1:]
    emulator = emulator[0].split() if emulator else []
    command, text = PROGRAMS[program]
    microseconds, steps = INTERRUPTIONS.get(program, ("5000", "20"))
    if program == "stack_cases":
        command = [cases]
    elif emulator:
        command = [os.environ["MEMLEAK_ARM64_PROGRAMS"] + command[0], *command[1:]]
    if not os.path.exists(command[0]):
        print(f"{program} is not installed")
        return 77
    wanted = int(os.environ.get("SAMPLED_PLACES", "1000" if emulator else "3000"))
    with tempfile.TemporaryDirectory() as directory:
        work, result = f"{directory}/work", f"{directory}/result"
        with open(work, "w", encoding="utf-8") as file:
            file.write(text)
        settings = {"LD_PRELOAD": sampler, "STACK_SAMPLER_RESULT": result,
                    "STACK_SAMPLER_MICROSECONDS": microseconds, "STACK_SAMPLER_STEPS": steps}
        places, frames, slow = 0, 0, 0
        while places < wanted:
            run([word.replace("FILE", work) for word in command], dict(settings), emulator)
            with open(result, encoding="utf-8", errors="replace") as file:
                output = file.read()
            os.remove(result)
            for line in re.findall(r"^.*places=.*$", output, re.M):
                count = {key: int(value) for key, value in re.findall(r"(\w+)=(\d+)", line)}
                places += count["places"]
                frames += count["frames"]
                slow += count["slow"]
                if count["differing"]:
                    print(output)
                    return 1
    print(f"{program}: {places} places with {frames} frames, {slow} of them by slow steps")
    assert slow <= frames / 100
    return 0


if __name__ == "__main__":
    sys.exit(main())
