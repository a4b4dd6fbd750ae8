#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Real programs behave the same with and without the loader.
# Usage: real_programs.sh PRELOAD C++-PLUGIN
set -u
preload=$1 plugin=$2
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
failed=0

# same COMMAND...: compares output, errors and exit code.
same() {
  command -v "$1" >/dev/null ||
    { echo "missing: $1; scripts/install-packages installs it" >&2; failed=1; return; }
  "$@" >"$scratch/plain" 2>&1
  echo "exit $?" >>"$scratch/plain"
  LD_PRELOAD=$preload MEMLEAK_TRACKER_START=0x10 MEMLEAK_TRACKER_REPORT_AT_EXIT=0x40 \
    MEMLEAK_TRACKER_ROOT=$scratch/root.%p "$@" >"$scratch/loaded" 2>&1
  echo "exit $?" >>"$scratch/loaded"
  if ! diff "$scratch/plain" "$scratch/loaded"; then
    echo "differs: $*" >&2
    failed=1
  fi
}

same python3 -c "
import ctypes, json, multiprocessing, subprocess, threading
ctypes.CDLL('$plugin')  # brings the C++ run-time library
t = [threading.Thread(target=lambda: json.dumps([list(range(900)) for _ in range(90)])) for _ in '1234']
[x.start() for x in t]; [x.join() for x in t]
p = multiprocessing.get_context('fork').Pool(2); print(p.map(hash, range(5))); p.close(); p.join()
print(subprocess.run(['echo', 'spawned'], capture_output=True))"
same jq -cn '[range(20000) | {a: ., b: tostring}] | group_by(.a % 7) | map(length)'
same bash -c 'set -o pipefail; (seq 30000 | rev | sort -S 1M | uniq -c | tail -3) && x=$(date -u -d @0)
  echo "$x" | while read -r line; do echo "[$line]"; done; ls /nonexistent | wc
  echo $$ >"$0"; kill -TERM $$' "$scratch/killed"
killed=$scratch/root.$(<"$scratch/killed")
for root in "$scratch"/root.*; do
  [[ $root == "$killed" ]] && continue
  [[ $(tail -c 3 "$root/data/log/reliability/allocations_dump") == END ]] ||
    { echo "no complete report in $root" >&2; failed=1; }
done
exit $failed
