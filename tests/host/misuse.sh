#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# The loader's one line on stderr for each user error, and the libraries that it needs.
# Usage: misuse.sh DIR-WITH-TRACKER DIR-WITHOUT PROGRAM "runner;that;takes;NAME=VALUE"
set -eu
lib=$1 alone=$2 program=$3
IFS=';' read -ra run <<<"$4"
root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT

# expect TEXT DIR CASE: the case passes with one line on stderr, which contains TEXT.
expect() {
  local errors
  errors=$("${run[@]}" "LD_PRELOAD=$2/libmemleak_preload.so" "$program" "$3" 2>&1) ||
    { echo "$errors"; echo "$3 failed" >&2; exit 1; }
  if [[ $errors == *$'\n'* || $errors != *"$1"* ]]; then
    printf 'expected one line with "%s", got:\n%s\n' "$1" "$errors" >&2
    exit 1
  fi
}

expect "memleak: cannot open $alone/libmemleak_tracker.so: " "$alone" libraries
MEMLEAK_TRACKER_START=0x1z expect "MEMLEAK_TRACKER_START=0x1z is not a number" "$lib" libraries
MEMLEAK_TRACKER_START=16 MEMLEAK_TRACKER_START_PARAMETER=0x100000000 \
  expect "MEMLEAK_TRACKER_START_PARAMETER=0x100000000 is not" "$lib" libraries

export MEMLEAK_TRACKER_ROOT=$root
MEMLEAK_TRACKER_REPORT_AT_EXIT=0xb0 \
  expect "MEMLEAK_TRACKER_REPORT_AT_EXIT=0xb0 is not a report command" "$lib" libraries
(
  # No file can be written. The program must continue.
  ulimit -f 0
  trap '' XFSZ
  MEMLEAK_TRACKER_REPORT_AT_EXIT=0x40 \
    expect "no report at exit: cannot write $root/data/log/reliability/profile: File too large" "$lib" libraries
)
chmod go+w "$root"
MEMLEAK_TRACKER_REPORT_AT_EXIT=0x40 \
  expect "no report at exit: cannot write $root: other users may write to it" "$lib" libraries

needed=$(readelf -d "$lib/libmemleak_preload.so" | awk '/NEEDED/ {print $NF}' | xargs)
[[ $needed =~ ^"[libc.so.6]"( "[ld-linux-"[a-z0-9_-]+".so."[12]"]")?$ ]] ||
  { echo "needs: $needed" >&2; exit 1; }
